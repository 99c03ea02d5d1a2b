// The functions for growing texts. Tested in tests/api/zpLinkBufferTest.cpp.

#include "api/zeph.h"

#include "base/core/LinkBuffer.h"

ZPLINKBUFFER zpLinkBuffer_Allocate(int first, int next) {
  return new LinkBuffer(first, next);
}
void zpLinkBuffer_Free(ZPLINKBUFFER buffer) {
  delete buffer;
}
void zpLinkBuffer_Concat_String(ZPLINKBUFFER buffer, const char* bytes, int length) {
  buffer->cat(bytes, length);
}
void zpLinkBuffer_Concat_String_Nocopy(ZPLINKBUFFER buffer, char* bytes, int used, int allocated) {
  buffer->cat_nocopy(bytes, used, allocated);
}
void zpLinkBuffer_Concat_Char(ZPLINKBUFFER buffer, char c) {
  buffer->cat(&c, 1);
}
void zpLinkBuffer_Concat_HexChar(ZPLINKBUFFER buffer, unsigned char c) {
  buffer->cat_hex(c);
}
void zpLinkBuffer_Concat_Int(ZPLINKBUFFER buffer, int value) {
  buffer->cat(value);
}
void zpLinkBuffer_Concat_Double(ZPLINKBUFFER buffer, double value) {
  buffer->cat(value);
}
void zpLinkBuffer_Concat_Variable(ZPLINKBUFFER buffer, ZPVARIABLE variable) {
  buffer->cat(variable);
}
char* zpLinkBuffer_Release(ZPLINKBUFFER buffer, int* length, int* allocated, int extra) {
  int own_length;
  if (!length) length = &own_length;
  char* text = buffer->release(length, allocated, extra > 0 ? extra : 0);
  if (extra > 0) text[*length] = '\0';
  return text;
}
char* zpLinkBuffer_Data(ZPLINKBUFFER buffer, int* length, int* allocated) {
  int own_length;
  return buffer->data(length ? length : &own_length, allocated);
}

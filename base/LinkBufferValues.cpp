// Numbers and script values in a LinkBuffer, and its way to an output.
// Tests: tests/base/LinkBufferTest.cpp

#include "base/LinkBuffer.h"
#include "base/Variable.h"
#include "base/ZephApplication.h"

void LinkBuffer::cat(int value) {
  int length, size;
  char* text = ZephApplication::itos(value, &length, &size);
  cat_nocopy(text, length, size);
}

void LinkBuffer::cat(double value) {
  int length, size;
  char* text = ZephApplication::dtos(value, &length, &size, -1);
  cat_nocopy(text, length, size);
}

void LinkBuffer::cat(Variable* variable) {
  const String& text = variable->value();
  if (text.data) cat(text.data, text.length);
}

void LinkBuffer::prepend(int value) {
  int length, size;
  char* text = ZephApplication::itos(value, &length, &size);
  prepend_nocopy(text, length, size);
}

void LinkBuffer::prepend(double value) {
  int length, size;
  char* text = ZephApplication::dtos(value, &length, &size, -1);
  prepend_nocopy(text, length, size);
}

void LinkBuffer::prepend(Variable* variable) {
  const String& text = variable->value();
  if (text.data) prepend(text.data, text.length);
}

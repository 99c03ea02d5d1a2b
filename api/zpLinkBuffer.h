/* Texts that grow, for extension libraries. Plain C; the notes at the top of api/zpVariable.h apply
   here, except for lengths: -1 does not mean strlen, and negative lengths count as 0. */

#ifndef ZEPH_API_ZPLINKBUFFER_H
#define ZEPH_API_ZPLINKBUFFER_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns an empty text, which the caller frees. Memory is allocated in multiples of `first` bytes
   at first, then of `next` bytes. */
ZPLINKBUFFER zpLinkBuffer_Allocate(int first, int next);
void zpLinkBuffer_Free(ZPLINKBUFFER buffer);

/* Append. Nocopy adopts memory from zpProgram_Allocate; allocated is its size. HexChar appends two
   hexadecimal digits. */
void zpLinkBuffer_Concat_String(ZPLINKBUFFER buffer, const char* text, int length);
void zpLinkBuffer_Concat_String_Nocopy(ZPLINKBUFFER buffer, char* text, int length, int allocated);
void zpLinkBuffer_Concat_Char(ZPLINKBUFFER buffer, char c);
void zpLinkBuffer_Concat_HexChar(ZPLINKBUFFER buffer, unsigned char c);
void zpLinkBuffer_Concat_Int(ZPLINKBUFFER buffer, int value);
void zpLinkBuffer_Concat_Double(ZPLINKBUFFER buffer, double value);
void zpLinkBuffer_Concat_Variable(ZPLINKBUFFER buffer, ZPVARIABLE variable);

/* Returns the text, NUL-terminated; the caller frees it with zpProgram_Free. The buffer is then
   empty. *length receives the bytes without the NUL, *allocated the size of the memory; either may
   be null. */
char* zpLinkBuffer_Release(ZPLINKBUFFER buffer, int* length, int* allocated);
/* Returns the text, NUL-terminated, valid until the next change. */
const char* zpLinkBuffer_Data(ZPLINKBUFFER buffer, int* length);

#ifdef __cplusplus
}
#endif

#endif

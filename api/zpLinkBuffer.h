/* Texts that grow, for extension libraries. Plain C; what is said at the top of api/zpVariable.h
   holds here, but for lengths: -1 is no sign for strlen here, and negative ones count as 0. */

#ifndef ZEPH_API_ZPLINKBUFFER_H
#define ZEPH_API_ZPLINKBUFFER_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An empty text, which the caller frees. Memory is taken in multiples of so many bytes, first and
   from then on. */
ZPLINKBUFFER zpLinkBuffer_Allocate(int first, int next);
void zpLinkBuffer_Free(ZPLINKBUFFER buffer);

/* Append. Nocopy takes over memory from zpProgram_Allocate, of that size; HexChar appends two
   hexadecimal digits. */
void zpLinkBuffer_Concat_String(ZPLINKBUFFER buffer, const char* text, int length);
void zpLinkBuffer_Concat_String_Nocopy(ZPLINKBUFFER buffer, char* text, int length, int allocated);
void zpLinkBuffer_Concat_Char(ZPLINKBUFFER buffer, char c);
void zpLinkBuffer_Concat_HexChar(ZPLINKBUFFER buffer, unsigned char c);
void zpLinkBuffer_Concat_Int(ZPLINKBUFFER buffer, int value);
void zpLinkBuffer_Concat_Double(ZPLINKBUFFER buffer, double value);
void zpLinkBuffer_Concat_Variable(ZPLINKBUFFER buffer, ZPVARIABLE variable);

/* Hands the text over, with a NUL behind it; zpProgram_Free frees it. The buffer is empty then.
 *length receives the bytes without the NUL, *allocated those of the memory; either may be null. */
char* zpLinkBuffer_Release(ZPLINKBUFFER buffer, int* length, int* allocated);
/* The text, NUL-terminated, good until the next change. */
const char* zpLinkBuffer_Data(ZPLINKBUFFER buffer, int* length);

#ifdef __cplusplus
}
#endif

#endif

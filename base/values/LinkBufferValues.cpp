// The operations of LinkBuffer that take script values: numbers, in the text form that scripts see,
// which is adopted as a block and not copied, and variables. They are apart from LinkBuffer.cpp so
// that code that only gathers bytes does not depend on values. Tested in
// tests/base/values/LinkBufferValuesTest.cpp.

#include "base/core/LinkBuffer.h"
#include "base/host/ZephApplication.h"
#include "base/values/Variable.h"

void LinkBuffer::cat(int value) {
  int length;
  int size;
  char* text = ZephApplication::itos(value, &length, &size);
  cat_nocopy(text, length, size);
}

void LinkBuffer::cat(double value) {
  int length;
  int size;
  char* text = ZephApplication::dtos(value, &length, &size, -1);
  cat_nocopy(text, length, size);
}

void LinkBuffer::cat(Variable* variable) {
  const String& text = variable->value();
  cat(text.data, text.length);
}

void LinkBuffer::prepend(int value) {
  int length;
  int size;
  char* text = ZephApplication::itos(value, &length, &size);
  prepend_nocopy(text, length, size);
}

void LinkBuffer::prepend(double value) {
  int length;
  int size;
  char* text = ZephApplication::dtos(value, &length, &size, -1);
  prepend_nocopy(text, length, size);
}

void LinkBuffer::prepend(Variable* variable) {
  const String& text = variable->value();
  prepend(text.data, text.length);
}

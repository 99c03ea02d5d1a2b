/* JSON texts to variables and back, for the libraries zephjson and zephstd.
   docs/extensions/zephjson.md is the page for authors of scripts. Texts come from visitors and from
   servers, so the reader checks every byte, and both directions have limits for depth and size.
   Tested in tests/e2e/JsonTest.cpp. */

#define _GNU_SOURCE

#include <float.h>
#include <limits.h>
#include <locale.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "api/zeph.h"
#include "extensions/json.h"

enum {
  most_nested = 512,           /* arrays and objects in one another */
  most_values = 1000000,       /* of a text that is read */
  values_between_looks = 1024, /* at the time limit of the script */
  most_bytes = 64 << 20,       /* of a text that is written */
  exact_digits = 15            /* that a double keeps of any number */
};

/* Frees what a variable holds at the end of its scope, also if memory runs out in one of the
   engine's functions: the exception that ends the request passes through here. */
#define OWNED(free_it) __attribute__((cleanup(free_it)))

static void free_text(char** text) {
  free(*text);
}
static void free_list(ZPVARIABLELIST* list) {
  zpVariableList_Free(*list);
}
static void free_buffer(ZPLINKBUFFER* buffer) {
  zpLinkBuffer_Free(*buffer);
}

static void free_variable(ZPVARIABLE* variable) {
  zpVariable_Free(*variable);
}

static void clear(ZPVARIABLE value) {
  zpVariable_SetValue(value, "", 0);
}

/* Numbers have a point, whatever the locale of the process has. */
static locale_t plain_locale(void) {
  static locale_t plain;
  locale_t in_use = __atomic_load_n(&plain, __ATOMIC_ACQUIRE);
  if (in_use == NULL) {
    /* Two threads may make it at the same time; one of them is then kept and never freed. */
    in_use = newlocale(LC_ALL_MASK, "C", NULL);
    __atomic_store_n(&plain, in_use, __ATOMIC_RELEASE);
  }
  return in_use;
}

/* --- Reading ---------------------------------------------------------------------------------- */

typedef struct Reader {
  const char* begin;
  const char* at;
  const char* end;
  int nested;
  const char* problem; /* null while there is none */
  char* text;          /* room for the longest string of the text */
  ZPPROGRAM program;
  int values;         /* so far */
  ZPVARIABLE nothing; /* a variable without a value */
} Reader;

static int fail(Reader* reader, const char* problem) {
  if (reader->problem == NULL) reader->problem = problem;
  return 0;
}

/* The next byte; -1 at the end. */
static int peek(const Reader* reader) {
  return reader->at < reader->end ? (unsigned char)*reader->at : -1;
}

static void skip_space(Reader* reader) {
  while (reader->at < reader->end && strchr(" \t\r\n", *reader->at) != NULL &&
         *reader->at != '\0') {
    reader->at++;
  }
}

static int skip(Reader* reader, char c) {
  if (peek(reader) != (unsigned char)c) return 0;
  reader->at++;
  return 1;
}

static int read_word(Reader* reader, const char* word) {
  const size_t length = strlen(word);
  if ((size_t)(reader->end - reader->at) < length || memcmp(reader->at, word, length) != 0) {
    return fail(reader, "a value is expected");
  }
  reader->at += length;
  return 1;
}

static int hex_digit(int c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/* Four hexadecimal digits; -1 if they are not there. */
static int read_hex(Reader* reader) {
  int value = 0;
  for (int i = 0; i < 4; i++) {
    const int digit = hex_digit(peek(reader));
    if (digit < 0) return -1;
    value = value << 4 | digit;
    reader->at++;
  }
  return value;
}

static char* put_utf8(char* to, unsigned code) {
  if (code < 0x80) {
    *to++ = (char)code;
  } else if (code < 0x800) {
    *to++ = (char)(0xC0 | code >> 6);
    *to++ = (char)(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    *to++ = (char)(0xE0 | code >> 12);
    *to++ = (char)(0x80 | (code >> 6 & 0x3F));
    *to++ = (char)(0x80 | (code & 0x3F));
  } else {
    *to++ = (char)(0xF0 | code >> 18);
    *to++ = (char)(0x80 | (code >> 12 & 0x3F));
    *to++ = (char)(0x80 | (code >> 6 & 0x3F));
    *to++ = (char)(0x80 | (code & 0x3F));
  }
  return to;
}

/* What follows "\u". Half of a pair alone becomes the replacement character. */
static int read_code(Reader* reader, char** to) {
  int code = read_hex(reader);
  if (code < 0) return fail(reader, "four hexadecimal digits are expected");
  if (code >= 0xD800 && code < 0xDC00 && reader->end - reader->at >= 2 && reader->at[0] == '\\' &&
      reader->at[1] == 'u') {
    const char* const before = reader->at;
    reader->at += 2;
    const int low = read_hex(reader);
    if (low >= 0xDC00 && low < 0xE000) {
      *to = put_utf8(*to, 0x10000u + ((unsigned)(code - 0xD800) << 10) + (unsigned)(low - 0xDC00));
      return 1;
    }
    reader->at = before;
  }
  if (code >= 0xD800 && code < 0xE000) code = 0xFFFD;
  *to = put_utf8(*to, (unsigned)code);
  return 1;
}

/* Reads a string into reader->text; -1 if it is none. An escape is never shorter than its bytes, so
   the room is enough. */
static int read_string(Reader* reader) {
  if (!skip(reader, '"')) {
    fail(reader, "a string is expected");
    return -1;
  }
  char* to = reader->text;
  for (;;) {
    const int c = peek(reader);
    if (c < 0) return fail(reader, "a string does not end") - 1;
    if (c < 0x20) return fail(reader, "a control character in a string") - 1;
    reader->at++;
    if (c == '"') break;
    if (c != '\\') {
      *to++ = (char)c;
      continue;
    }
    const int escaped = peek(reader);
    if (escaped < 0) return fail(reader, "a string does not end") - 1;
    reader->at++;
    switch (escaped) {
      case '"':
      case '\\':
      case '/': *to++ = (char)escaped; break;
      case 'b': *to++ = '\b'; break;
      case 'f': *to++ = '\f'; break;
      case 'n': *to++ = '\n'; break;
      case 'r': *to++ = '\r'; break;
      case 't': *to++ = '\t'; break;
      case 'u':
        if (!read_code(reader, &to)) return -1;
        break;
      default: return fail(reader, "an unknown escape in a string") - 1;
    }
  }
  return (int)(to - reader->text);
}

static int skip_digits(Reader* reader) {
  const char* const begin = reader->at;
  while (peek(reader) >= '0' && peek(reader) <= '9') reader->at++;
  return (int)(reader->at - begin);
}

/* A number as the engine has them: an integer of 32 bits, or a double. A whole number with more
   digits than a double keeps stays a text, because it may be someone's key. */
static int read_number(Reader* reader, ZPVARIABLE value) {
  const char* const begin = reader->at;
  const int negative = skip(reader, '-');
  const int zero = peek(reader) == '0';
  const int digits = skip_digits(reader);
  if (digits == 0) return fail(reader, negative ? "a digit is expected" : "a value is expected");
  if (zero && digits > 1) return fail(reader, "a number begins with 0");
  int whole = 1;
  if (skip(reader, '.')) {
    whole = 0;
    if (skip_digits(reader) == 0) return fail(reader, "a digit is expected");
  }
  if (skip(reader, 'e') || skip(reader, 'E')) {
    whole = 0;
    if (!skip(reader, '+')) skip(reader, '-');
    if (skip_digits(reader) == 0) return fail(reader, "a digit is expected");
  }
  if (whole && digits > exact_digits) {
    zpVariable_SetValue(value, begin, (int)(reader->at - begin));
    return 1;
  }
  /* The text has a NUL at its end, and what follows the number is no part of one. */
  const double number = strtod_l(begin, NULL, plain_locale());
  if (whole && number >= INT_MIN && number <= INT_MAX) {
    zpVariable_SetValue_Integer(value, (int)number);
  } else {
    zpVariable_SetValue_Double(value, number);
  }
  return 1;
}

static int read_value(Reader* reader, ZPVARIABLE value);

static int read_array(Reader* reader, ZPVARIABLE value) {
  zpVariable_Delete_Array_Elements(1, -1, 1, value); /* makes it an array */
  skip_space(reader);
  if (skip(reader, ']')) return 1;
  for (int position = 1;; position++) {
    if (!read_value(reader, zpVariable_Array_Element(position, value, 1))) return 0;
    skip_space(reader);
    if (skip(reader, ']')) return 1;
    if (!skip(reader, ',')) return fail(reader, "',' or ']' is expected");
  }
}

static int read_object(Reader* reader, ZPVARIABLE value) {
  zpVariable_Struct_Member("x", 1, value, 1); /* makes it a structure */
  zpVariable_Delete_Struct_Member("x", 1, value);
  skip_space(reader);
  if (skip(reader, '}')) return 1;
  for (;;) {
    skip_space(reader);
    const int length = read_string(reader);
    if (length < 0) return 0;
    ZPVARIABLE member = zpVariable_Struct_Member(reader->text, length, value, 1);
    clear(member); /* of two members of one name the later one counts */
    skip_space(reader);
    if (!skip(reader, ':')) return fail(reader, "':' is expected");
    if (!read_value(reader, member)) return 0;
    skip_space(reader);
    if (skip(reader, '}')) return 1;
    if (!skip(reader, ',')) return fail(reader, "',' or '}' is expected");
  }
}

/* Whether the time limit of the script has passed. */
static int time_is_over(ZPPROGRAM program) {
  ZPVARIABLE remaining =
      zpVariableHash_Find(zpProgram_System_VariableHash(program), "dyn_time_remaining", -1);
  /* It is -1 without a limit. */
  int length = 0;
  if (remaining == NULL || zpVariable_Value(remaining, &length) == NULL) return 0;
  return length > 0 && zpVariable_Value_Integer(remaining) == 0;
}

/* A short text can make many variables, so they are counted: an array of a million elements takes
   a hundred times the memory of its text. */
static int count_value(Reader* reader) {
  if (reader->values++ == most_values) return fail(reader, "too many values");
  if (reader->values % values_between_looks == 0 && time_is_over(reader->program)) {
    return fail(reader, "the time limit of the script has passed");
  }
  return 1;
}

static int read_value(Reader* reader, ZPVARIABLE value) {
  skip_space(reader);
  if (!count_value(reader)) return 0;
  const int c = peek(reader);
  if (c == '[' || c == '{') {
    if (reader->nested == most_nested) return fail(reader, "too many values in one another");
    reader->at++;
    reader->nested++;
    const int done = c == '[' ? read_array(reader, value) : read_object(reader, value);
    reader->nested--;
    return done;
  }
  switch (c) {
    case '"': {
      const int length = read_string(reader);
      if (length >= 0) zpVariable_SetValue(value, reader->text, length);
      return length >= 0;
    }
    case 't': zpVariable_SetValue_Integer(value, 1); return read_word(reader, "true");
    case 'f': zpVariable_SetValue_Integer(value, 0); return read_word(reader, "false");
    case 'n':
      zpVariable_SetValue_Variable(value, reader->nothing);
      return read_word(reader, "null");
    default: return read_number(reader, value);
  }
}

/* Where the reader has stopped, for the message. */
static void describe(const Reader* reader, char* message, size_t room) {
  int line = 1, column = 1;
  for (const char* p = reader->begin; p < reader->at; p++) {
    column = *p == '\n' ? 1 : column + 1;
    line += *p == '\n';
  }
  snprintf(message, room, "line %d, byte %d: %s", line, column, reader->problem);
}

int json_read(ZPPROGRAM program, const char* bytes, int length, ZPVARIABLE value,
              char message[json_longest_message]) {
  /* Copies: the value may be the text's own variable. Both end in a NUL. */
  OWNED(free_text) char* text = malloc((size_t)length + 1);
  OWNED(free_text) char* room = malloc((size_t)length + 1);
  message[0] = '\0';
  if (text == NULL || room == NULL) return zpProgram_FatalError(program, "out of memory", -1);
  if (length > 0) memcpy(text, bytes, (size_t)length);
  text[length] = '\0';
  OWNED(free_variable) ZPVARIABLE nothing = zpVariable_Allocate(NULL, 0, NULL, 0);
  Reader reader = {text, text, text + length, 0, NULL, room, program, 0, nothing};
  clear(value);
  if (read_value(&reader, value)) {
    skip_space(&reader);
    if (reader.at < reader.end) fail(&reader, "something follows the value");
  }
  if (reader.problem == NULL) return 1;
  describe(&reader, message, json_longest_message);
  clear(value);
  return 0;
}

/* --- Writing ---------------------------------------------------------------------------------- */

typedef struct Writer {
  ZPLINKBUFFER to;
  int bytes;
  int nested;
} Writer;

static int put(Writer* writer, const char* bytes, int length) {
  if (length > most_bytes - writer->bytes) return 0;
  writer->bytes += length;
  zpLinkBuffer_Concat_String(writer->to, bytes, length);
  return 1;
}

/* The length of the character of UTF-8 at text, of at most `left` bytes; 0 if there is none. */
static int utf8_length(const unsigned char* text, int left) {
  const unsigned char c = text[0];
  const int length = c < 0x80                ? 1
                     : c >= 0xC2 && c < 0xE0 ? 2
                     : c >= 0xE0 && c < 0xF0 ? 3
                     : c >= 0xF0 && c < 0xF5 ? 4
                                             : 0;
  if (length == 0 || length > left) return 0;
  for (int i = 1; i < length; i++) {
    if ((text[i] & 0xC0) != 0x80) return 0;
  }
  /* Longer forms than needed, halves of pairs, and codes beyond the last. */
  if (c == 0xE0 && text[1] < 0xA0) return 0;
  if (c == 0xED && text[1] > 0x9F) return 0;
  if (c == 0xF0 && text[1] < 0x90) return 0;
  if (c == 0xF4 && text[1] > 0x8F) return 0;
  return length;
}

/* U+2028 and U+2029, which end a line of an older script. */
static int is_line_end(const unsigned char* character) {
  return character[0] == 0xE2 && character[1] == 0x80 && (character[2] | 1) == 0xA9;
}

/* Bytes that are no UTF-8 become the replacement character. What could end a script element of a
   page, or change how its end is found, is written as a number, so that the text may be in one. */
static int write_string(Writer* writer, const char* text, int length) {
  const unsigned char* const bytes = (const unsigned char*)text;
  int begin = 0; /* of what needs no escape */
  if (!put(writer, "\"", 1)) return 0;
  for (int i = 0; i < length;) {
    const unsigned char c = bytes[i];
    const int character = utf8_length(bytes + i, length - i);
    char escape[8] = "";
    if (character == 0) {
      snprintf(escape, sizeof escape, "\xEF\xBF\xBD");
    } else if (c == '"' || c == '\\') {
      snprintf(escape, sizeof escape, "\\%c", c);
    } else if (c == '\n') {
      snprintf(escape, sizeof escape, "\\n");
    } else if (c == '\t') {
      snprintf(escape, sizeof escape, "\\t");
    } else if (c == '\r') {
      snprintf(escape, sizeof escape, "\\r");
    } else if (c < 0x20 || c == '<' || c == '>' || c == '&') {
      snprintf(escape, sizeof escape, "\\u%04x", c);
    } else if (character == 3 && is_line_end(bytes + i)) {
      snprintf(escape, sizeof escape, "\\u20%02x", bytes[i + 2] - 0x80);
    } else {
      i += character;
      continue;
    }
    if (!put(writer, text + begin, i - begin) || !put(writer, escape, (int)strlen(escape)))
      return 0;
    i += character > 0 ? character : 1;
    begin = i;
  }
  return put(writer, text + begin, length - begin) && put(writer, "\"", 1);
}

/* The fewest digits that are read back as the same number. */
static int write_double(Writer* writer, double number) {
  if (!isfinite(number)) return put(writer, "null", 4);
  char text[32];
  int length = 0;
  const locale_t before = uselocale(plain_locale());
  /* Every number with few digits is among those with exact_digits, but not near 0. */
  for (int digits = fabs(number) < DBL_MIN ? 1 : exact_digits; digits <= 17; digits++) {
    length = snprintf(text, sizeof text, "%.*g", digits, number);
    if (strtod(text, NULL) == number) break;
  }
  uselocale(before);
  return put(writer, text, length);
}

static int write_value(Writer* writer, ZPVARIABLE value);

static int write_array(Writer* writer, ZPVARIABLE value) {
  const int last = zpVariable_Array_Max(value);
  if (!put(writer, "[", 1)) return 0;
  for (int position = 1; position <= last && position > 0; position++) {
    if (position > 1 && !put(writer, ",", 1)) return 0;
    ZPVARIABLE element = zpVariable_Array_Element(position, value, 0);
    if (!(element != NULL ? write_value(writer, element) : put(writer, "null", 4))) return 0;
  }
  return put(writer, "]", 1);
}

static int write_members(Writer* writer, ZPVARIABLELIST members) {
  int first = 1;
  for (ZPVARIABLE member = zpVariableList_First(members); member != NULL;
       member = zpVariableList_Next(members)) {
    if (!first && !put(writer, ",", 1)) return 0;
    first = 0;
    int length = 0;
    const char* name = zpVariable_Name(member, &length);
    if (!write_string(writer, name, length) || !put(writer, ":", 1) ||
        !write_value(writer, member)) {
      return 0;
    }
  }
  return 1;
}

static int write_object(Writer* writer, ZPVARIABLE value) {
  OWNED(free_list) ZPVARIABLELIST members = zpVariableList_Allocate();
  zpVariable_Aggregate_List(value, members);
  return put(writer, "{", 1) && write_members(writer, members) && put(writer, "}", 1);
}

static int write_value(Writer* writer, ZPVARIABLE value) {
  const int type = zpVariable_Type(value);
  if (type == 4 || type == 5) {
    if (writer->nested == most_nested) return 0;
    writer->nested++;
    const int done = type == 4 ? write_object(writer, value) : write_array(writer, value);
    writer->nested--;
    return done;
  }
  if (type == 2) return write_double(writer, zpVariable_Value_Double(value));
  int length = 0;
  const char* text = zpVariable_Value(value, &length);
  if (type == 0 && length == 0) return put(writer, "null", 4);
  return type == 1 ? put(writer, text, length) : write_string(writer, text, length);
}

int json_write(ZPVARIABLE value, ZPVARIABLE text) {
  OWNED(free_buffer) ZPLINKBUFFER buffer = zpLinkBuffer_Allocate(256, 4096);
  Writer writer = {buffer, 0, 0};
  if (!write_value(&writer, value)) return 0;
  int length, allocated;
  char* const bytes = zpLinkBuffer_Release(writer.to, &length, &allocated, 1);
  zpVariable_SetValue_Nocopy(text, bytes, length, allocated);
  return 1;
}

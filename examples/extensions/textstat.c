/* textstat: a builtin library for pages about texts. Scripts declare its functions as external ones
   and call them like their own:

     measure(text, report var)  returns the count of words; report becomes a structure with the
                                members characters, words, lines and longest
     slug(title)                "Ten Years After!" -> "ten-years-after", for addresses and anchors;
                                no two calls of a request return the same slug
     totals(report var)         returns how many texts were measured in this request; report as
                                above, over all of them

   It shows the three places where a library keeps something: variables, which are the script's; the
   state word, which one function has for itself (slug); and persistent data, which all functions of
   a request find by name (measure and totals). Nothing is kept beyond the request, and no static
   variable changes, since the engine runs many requests at the same time.

   docs/extensions.md says how it is built and registered. */

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "api/zeph.h"

/* --- Arguments -------------------------------------------------------------------------------- */

/* The argument of that name. A script may have declared the function with other parameters: then
   the result is null, and the script's error is set. */
static ZPVARIABLE find_argument(ZPPROGRAM program, ZPVARIABLEHASH parameters, const char* name) {
  ZPVARIABLE argument = zpVariableHash_Find(parameters, name, -1);
  if (argument == NULL) {
    char message[64];
    snprintf(message, sizeof message, "textstat: there is no parameter '%s'", name);
    zpProgram_FatalError(program, message, -1);
  }
  return argument;
}

/* --- Measuring -------------------------------------------------------------------------------- */

typedef struct Measures {
  int texts;
  int characters;
  int words;
  int lines;
  char* longest; /* the longest word, not terminated */
  int longest_bytes;
  int longest_characters;
} Measures;

/* UTF-8 continuation bytes do not count as characters. */
static int count_characters(const char* text, int length) {
  int count = 0;
  for (int i = 0; i < length; i++) count += ((unsigned char)text[i] & 0xC0) != 0x80;
  return count;
}

static void note_word(Measures* measures, const char* word, int length) {
  int characters = count_characters(word, length);
  measures->words++;
  if (characters <= measures->longest_characters) return;
  char* copy = malloc((size_t)length);
  if (copy == NULL) return;
  memcpy(copy, word, (size_t)length);
  free(measures->longest);
  measures->longest = copy;
  measures->longest_bytes = length;
  measures->longest_characters = characters;
}

static void add_text(Measures* measures, const char* text, int length) {
  int word = -1; /* where the current word begins */
  measures->texts++;
  measures->characters += count_characters(text, length);
  for (int i = 0; i < length; i++) {
    int space = isspace((unsigned char)text[i]);
    measures->lines += text[i] == '\n';
    if (!space && word < 0) word = i;
    if (space && word >= 0) {
      note_word(measures, text + word, i - word);
      word = -1;
    }
  }
  if (word >= 0) note_word(measures, text + word, length - word);
  /* A last line without a line end counts too. */
  if (length > 0 && text[length - 1] != '\n') measures->lines++;
}

static void set_member(ZPVARIABLE report, const char* name, int value) {
  zpVariable_SetValue_Integer(zpVariable_Struct_Member(name, -1, report, 1), value);
}

static void write_report(const Measures* measures, ZPVARIABLE report) {
  set_member(report, "characters", measures->characters);
  set_member(report, "words", measures->words);
  set_member(report, "lines", measures->lines);
  zpVariable_SetValue(zpVariable_Struct_Member("longest", -1, report, 1),
                      measures->longest_bytes > 0 ? measures->longest : "",
                      measures->longest_bytes);
}

/* --- What the functions of a request share ---------------------------------------------------- */

static const char totals_name[] = "textstat totals";

static void free_totals(void* program, void* data) {
  Measures* totals = data;
  (void)program;
  free(totals->longest);
  free(totals);
}

/* Null, with the script's error set, if there is no memory. */
static Measures* find_totals(ZPPROGRAM program) {
  Measures* totals = zpProgram_Lookup_Persistent(program, totals_name, -1);
  if (totals != NULL) return totals;
  totals = calloc(1, sizeof *totals);
  if (totals == NULL) {
    zpProgram_FatalError(program, "textstat: out of memory", -1);
    return NULL;
  }
  zpProgram_Register_Persistent(program, totals_name, -1, totals, free_totals);
  return totals;
}

static void measure(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  (void)state;
  ZPVARIABLE text = find_argument(program, parameters, "text");
  ZPVARIABLE report = find_argument(program, parameters, "report");
  Measures* totals = find_totals(program);
  if (text == NULL || report == NULL || totals == NULL) return;
  int length;
  const char* bytes = zpVariable_Value(text, &length);
  Measures measures = {0};
  add_text(&measures, bytes, length);
  add_text(totals, bytes, length);
  write_report(&measures, report);
  zpVariable_SetValue_Integer(result, measures.words);
  free(measures.longest);
}

static void totals(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  (void)state;
  ZPVARIABLE report = find_argument(program, parameters, "report");
  const Measures* totals = find_totals(program);
  if (report == NULL || totals == NULL) return;
  write_report(totals, report);
  zpVariable_SetValue_Integer(result, totals->texts);
}

/* --- Slugs ------------------------------------------------------------------------------------ */

/* A slug that was returned. The state word of slug() points to the list of them. */
typedef struct Slug {
  struct Slug* next;
  int length;
  char text[];
} Slug;

static int is_taken(const Slug* slugs, const char* text, int length) {
  for (; slugs != NULL; slugs = slugs->next) {
    if (slugs->length == length && memcmp(slugs->text, text, (size_t)length) == 0) return 1;
  }
  return 0;
}

/* Letters and digits in lower case, with one "-" for everything between two of them. Bytes outside
   ASCII are kept. The buffer has room for length bytes. */
static int make_slug(const char* title, int length, char* buffer) {
  int used = 0;
  for (int i = 0; i < length; i++) {
    unsigned char c = (unsigned char)title[i];
    if (isalnum(c) || c >= 0x80) {
      buffer[used++] = (char)tolower(c);
    } else if (used > 0 && buffer[used - 1] != '-') {
      buffer[used++] = '-';
    }
  }
  while (used > 0 && buffer[used - 1] == '-') used--;
  return used;
}

static void free_slugs(Slug* slug) {
  while (slug != NULL) {
    Slug* next = slug->next;
    free(slug);
    slug = next;
  }
}

static void slug(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  enum { suffix_room = 16 };
  if (program == NULL) { /* the request has ended */
    free_slugs(*state);
    return;
  }
  ZPVARIABLE title = find_argument(program, parameters, "title");
  if (title == NULL) return;
  int length;
  const char* text = zpVariable_Value(title, &length);
  Slug* made = malloc(sizeof *made + (size_t)length + suffix_room);
  if (made == NULL) {
    zpProgram_FatalError(program, "textstat: out of memory", -1);
    return;
  }
  int base = make_slug(text, length, made->text);
  made->length = base;
  for (int n = 2; is_taken(*state, made->text, made->length); n++) {
    made->length = base + snprintf(made->text + base, suffix_room, "-%d", n);
  }
  made->next = *state;
  *state = made;
  zpVariable_SetValue(result, made->text, made->length);
}

/* --- The table -------------------------------------------------------------------------------- */

#define NAME(text) text, sizeof text - 1

static _ZP_EL_Parameter measure_parameters[] = {
    {NAME("text"), 0},
    {NAME("report"), _ZP_EL_ByReference},
};
static _ZP_EL_Parameter slug_parameters[] = {{NAME("title"), 0}};
static _ZP_EL_Parameter totals_parameters[] = {{NAME("report"), _ZP_EL_ByReference}};

static _ZP_EL_Function functions[] = {
    {NAME("measure"), 2, measure_parameters, measure},
    {NAME("slug"), 1, slug_parameters, slug},
    {NAME("totals"), 1, totals_parameters, totals},
    {NULL, 0, 0, NULL, NULL},
};

static _ZP_EL_FunctionTable table = {NULL, functions};

__attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table(void) {
  return &table;
}

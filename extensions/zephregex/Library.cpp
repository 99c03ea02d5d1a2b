// zephregex: a builtin library for regular expressions. PCRE2 does the work.
//
//   regexmatch(text, pattern)           returns the position of the first match, 0 without one
//   regexgroups(text, pattern)          returns the first match and its groups
//   regexall(text, pattern)             returns all matches with their groups
//   regexreplace(text, pattern, with)   returns the text with all matches replaced
//   regexsplit(text, pattern)           returns the parts between the matches
//   regexquote(text)                    returns the pattern that matches just this text
//   regexproblem(pattern)               returns what is wrong with a pattern, and where
//
// docs/extensions/zephregex.md is the page for authors of scripts. Tested in
// tests/extensions/zephregex/RegexTest.cpp.

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "api/zeph.h"
#include "extensions/quote.h"

namespace {

constexpr size_t kMostPatternBytes = 16 << 10;
constexpr size_t kMostPatterns = 64;  // that a thread keeps
// Steps of a match at one place of a text. A pattern that takes more is a mistake or an attack.
constexpr uint32_t kMostSteps = 1'000'000;
// Nested steps, and the memory for them in KB.
constexpr uint32_t kMostDepth = 100'000;
constexpr uint32_t kMostHeap = 20'000;
// The stack of patterns that are compiled for the processor, which have no heap.
constexpr size_t kFirstStack = 32 << 10, kMostStack = 4 << 20;
constexpr size_t kMostResult = 64 << 20;
constexpr int kMostElements = 1'000'000;
constexpr int kMostMatches = 100'000;
// The time limit of the script is read after so many matches, and after so much time.
constexpr int kMatchesBetweenLooks = 256;
constexpr long long kMillisecondsBetweenLooks = 20;
// The clock is read after so many places of a text at which a pattern was tried.
constexpr unsigned kPlacesBetweenLooks = 16;
// Of the processor, for all matches of a call: a script without a time limit ends, too.
constexpr long long kMostMilliseconds = 10'000;

struct FreeCode {
  void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct FreeData {
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};
struct FreeContext {
  void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
};
struct FreeStack {
  void operator()(pcre2_jit_stack* stack) const { pcre2_jit_stack_free(stack); }
};

// A compiled pattern, with room for a match of it.
struct Pattern {
  std::string text;
  std::unique_ptr<pcre2_code, FreeCode> code;
  std::unique_ptr<pcre2_match_data, FreeData> data;
  uint32_t groups = 0;
};

// The patterns that a thread has used last, the most recent one first. They outlive the requests of
// the thread, and no other thread sees them.
class PatternCache {
 public:
  // Returns the compiled pattern, or null, with what is wrong in problem. It is valid until the
  // next call.
  Pattern* Find(std::string_view text, std::string* problem);

  pcre2_match_context* limits();

 private:
  std::list<Pattern> patterns;
  std::unordered_map<std::string_view, std::list<Pattern>::iterator> by_text;
  std::unique_ptr<pcre2_jit_stack, FreeStack> stack;
  std::unique_ptr<pcre2_match_context, FreeContext> context;
};

PatternCache& Patterns() {
  static thread_local PatternCache patterns;
  return patterns;
}

std::string Message(int code) {
  PCRE2_UCHAR text[128];
  const int length = pcre2_get_error_message(code, text, sizeof text);
  return length < 0 ? "unknown error" : reinterpret_cast<const char*>(text);
}

pcre2_match_context* PatternCache::limits() {
  if (!context) {
    context.reset(pcre2_match_context_create(nullptr));
    if (!context) throw std::bad_alloc();
    pcre2_set_match_limit(context.get(), kMostSteps);
    pcre2_set_depth_limit(context.get(), kMostDepth);
    pcre2_set_heap_limit(context.get(), kMostHeap);
    stack.reset(pcre2_jit_stack_create(kFirstStack, kMostStack, nullptr));
    if (stack) pcre2_jit_stack_assign(context.get(), nullptr, stack.get());
  }
  return context.get();
}

// Where the pattern begins after options such as "(*CRLF)", which must be its first bytes. What has
// the same form and is none, such as "(*COMMIT)", may be passed, too.
size_t AfterOptions(std::string_view text) {
  size_t at = 0;
  while (text.substr(at).starts_with("(*")) {
    const size_t end = text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789=", at + 2);
    if (end == std::string_view::npos || end == at + 2 || text[end] != ')') break;
    at = end + 1;
  }
  return at;
}

// Options stand before the pattern, as "(?i)" does, so they are part of its text.
std::unique_ptr<pcre2_code, FreeCode> Compile(std::string_view text, std::string* problem,
                                              size_t most_bytes = kMostPatternBytes) {
  if (text.size() > most_bytes) {
    *problem = "the pattern has more than 16 KB";
    return nullptr;
  }
  int code = 0;
  size_t offset = 0;
  // Code of the pattern's own, and single bytes of a character, have no place in pages.
  const uint32_t options = PCRE2_UTF | PCRE2_UCP | PCRE2_NEVER_BACKSLASH_C;
  std::unique_ptr<pcre2_code, FreeCode> compiled(pcre2_compile(
      reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), options, &code, &offset, nullptr));
  if (!compiled) {
    if (code == PCRE2_ERROR_HEAP_FAILED) throw std::bad_alloc();
    *problem = "byte " + std::to_string(offset + 1) + ": " + Message(code);
  }
  return compiled;
}

Pattern* PatternCache::Find(std::string_view text, std::string* problem) {
  const auto found = by_text.find(text);
  if (found != by_text.end()) {
    patterns.splice(patterns.begin(), patterns, found->second);
    return &patterns.front();
  }
  if (!Compile(text, problem)) return nullptr;
  // A match reports each place of the text at which it tries the pattern, because the limit of
  // steps is for one place only. The reports are no part of what a script sees, so its own text has
  // been compiled first.
  std::string watched(text);
  watched.insert(AfterOptions(text), "(?C1)");
  auto code = Compile(watched, problem, kMostPatternBytes + 5);
  if (!code) return nullptr;
  Pattern made;
  made.text = text;
  // Without the compiler for the processor, if it does not work here, matches are slower.
  pcre2_jit_compile(code.get(), PCRE2_JIT_COMPLETE);
  made.data.reset(pcre2_match_data_create_from_pattern(code.get(), nullptr));
  if (!made.data) throw std::bad_alloc();
  pcre2_pattern_info(code.get(), PCRE2_INFO_CAPTURECOUNT, &made.groups);
  made.code = std::move(code);
  if (patterns.size() >= kMostPatterns) {
    by_text.erase(patterns.back().text);
    patterns.pop_back();
  }
  patterns.push_front(std::move(made));
  try {
    by_text.emplace(patterns.front().text, patterns.begin());
  } catch (...) {
    patterns.pop_front();
    throw;
  }
  return &patterns.front();
}

// --- A call --------------------------------------------------------------------------------------

class Call {
 public:
  Call(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, const char* name)
      : program(program), parameters(parameters), result(result), name(name) {}

  // Returns an argument's text; false if it is none, and the script has its error.
  bool Text(int i, const char* parameter, std::string_view* text) const {
    ZPVARIABLE const variable = zpVariableHash_Index(parameters, i, 0);
    if (variable == nullptr || zpVariable_Aggregate_Type(variable) > 0) {
      return Fail(std::string("'") + parameter + "' is no text");
    }
    int length = 0;
    const char* const bytes = zpVariable_Value(variable, &length);
    *text =
        length > 0 ? std::string_view(bytes, static_cast<size_t>(length)) : std::string_view("");
    return true;
  }
  bool Fail(const std::string& message) const {
    const std::string whole = std::string(name) + ": " + message;
    zpProgram_FatalError(program, whole.data(), static_cast<int>(whole.size()));
    return false;
  }
  // The same with a part of what a visitor may have sent. Errors are on pages, so it is encoded for
  // HTML.
  bool Fail(const std::string& message, std::string_view quoted) const {
    return Fail(message + ": '" + EncodedQuote(quoted) + "'");
  }
  // Whether the time limit of the script has passed.
  bool TimeIsOver() const {
    static constexpr char kRemaining[] = "dyn_time_remaining";
    ZPVARIABLE const remaining = zpVariableHash_Find(zpProgram_System_VariableHash(program),
                                                     kRemaining, sizeof kRemaining - 1);
    // It is -1 without a limit.
    int length = 0;
    if (remaining == nullptr || zpVariable_Value(remaining, &length) == nullptr) return false;
    return length > 0 && zpVariable_Value_Integer(remaining) == 0;
  }

  ZPPROGRAM program;
  ZPVARIABLEHASH parameters;
  ZPVARIABLE result;
  const char* name;
};

long long Milliseconds(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return time.tv_sec * 1000LL + time.tv_nsec / 1'000'000;
}

// Ends a call that works for too long.
class Watch {
 public:
  explicit Watch(const Call& call) : call(call), last_look(Milliseconds(CLOCK_MONOTONIC_COARSE)) {}

  // Returns why the call must end, or null. It costs little when it was called just before; with
  // now set it looks in any case.
  const char* Look(bool now) {
    const long long time = Milliseconds(CLOCK_MONOTONIC_COARSE);
    if (!now && time - last_look < kMillisecondsBetweenLooks) return nullptr;
    last_look = time;
    if (call.TimeIsOver()) return "the time limit of the script has passed";
    const long long used = Milliseconds(CLOCK_THREAD_CPUTIME_ID);
    if (begin < 0) begin = used;
    const bool over = used - begin > kMostMilliseconds;
    return over ? "the pattern takes more than 10 seconds for this text" : nullptr;
  }

 private:
  const Call& call;
  long long last_look;
  long long begin = -1;  // what the thread had used at the first look
};

// What a result has so far.
struct Size {
  size_t bytes = 0;
  int elements = 0;
};

// Goes over the matches of a pattern in a text.
class Matcher {
 public:
  // ok() is false if the script has its error.
  Matcher(const Call& call, std::string_view text, std::string_view pattern_text)
      : call(call), text(text), watch(call) {
    std::string problem;
    pattern = Patterns().Find(pattern_text, &problem);
    if (pattern == nullptr) call.Fail("'pattern' is wrong at " + problem);
  }
  bool ok() const { return pattern != nullptr && !failed; }

  // Finds the next match. False without one, or after an error.
  bool Next() {
    if (!ok() || at > text.size()) return false;
    if (++matches > kMostMatches) return Failed("there are more than 100,000 matches");
    if (const char* late = watch.Look(matches % kMatchesBetweenLooks == 0)) return Failed(late);
    pcre2_match_context* const limits = Patterns().limits();
    pcre2_set_callout(limits, &Matcher::Tried, this);
    // The whole text is checked to be UTF-8 at the first match only, because that takes as long as
    // the text is.
    const uint32_t options = matches > 1 ? PCRE2_NO_UTF_CHECK : 0;
    for (;;) {
      const int count =
          pcre2_match(pattern->code.get(), reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(),
                      at, options | after_empty, pattern->data.get(), limits);
      if (count > 0) break;
      if (count != PCRE2_ERROR_NOMATCH) return Refused(count);
      if (after_empty == 0) return false;
      // There is nothing but the empty match here: on to the next character.
      after_empty = 0;
      if (at >= text.size()) return false;
      at += CharacterLength();
    }
    const size_t* const places = pcre2_get_ovector_pointer(pattern->data.get());
    first = places[0];
    // \K can put the start after the end.
    last = std::max(places[1], first);
    at = last;
    after_empty = first == last ? PCRE2_NOTEMPTY_ATSTART | PCRE2_ANCHORED : 0;
    return true;
  }

  size_t begin() const { return first; }
  size_t end() const { return last; }
  uint32_t groups() const { return pattern->groups; }
  // A group of the match, 0 for all of it; empty if it has no part in it.
  std::string_view Group(uint32_t i) const {
    const size_t* const places = pcre2_get_ovector_pointer(pattern->data.get());
    const size_t from = places[2 * size_t{i}], to = places[2 * size_t{i} + 1];
    return from == PCRE2_UNSET || from > to ? "" : text.substr(from, to - from);
  }
  // The number of a named group, or -1.
  int NumberOf(const std::string& name) const {
    return pcre2_substring_number_from_name(pattern->code.get(),
                                            reinterpret_cast<PCRE2_SPTR>(name.c_str()));
  }
  // Stores the match, as an array-like structure: the names of groups are their members. False if
  // it does not fit into the result, of which size is told.
  bool Store(ZPVARIABLE match, Size* size);
  // Counts an element with a text into the size of a result. False if that is too large or takes
  // too long.
  bool Count(std::string_view part, Size* size) {
    if (part.size() > kMostResult - size->bytes) return Failed("the result is larger than 64 MB");
    if (size->elements == kMostElements) {
      return Failed("the result has more than 1,000,000 elements");
    }
    size->bytes += part.size();
    size->elements++;
    if (const char* late = watch.Look(false)) return Failed(late);
    return true;
  }

 private:
  // Called for each place of the text at which the pattern is tried. Exceptions cannot pass through
  // the frames of the match, so they wait for its end.
  static int Tried(pcre2_callout_block*, void* data) {
    auto* const matcher = static_cast<Matcher*>(data);
    if (++matcher->tries % kPlacesBetweenLooks != 0) return 0;
    try {
      matcher->late = matcher->watch.Look(false);
    } catch (...) {
      matcher->thrown = std::current_exception();
    }
    return matcher->late != nullptr || matcher->thrown ? PCRE2_ERROR_CALLOUT : 0;
  }
  bool SetPart(ZPVARIABLE variable, std::string_view part, Size* size);
  bool Failed(const char* message) {
    failed = true;
    return call.Fail(message);
  }
  bool Refused(int code) {
    failed = true;
    if (thrown) std::rethrow_exception(thrown);
    if (late != nullptr) return call.Fail(late);
    if (code == PCRE2_ERROR_NOMEMORY) throw std::bad_alloc();
    if (code == PCRE2_ERROR_MATCHLIMIT || code == PCRE2_ERROR_DEPTHLIMIT ||
        code == PCRE2_ERROR_HEAPLIMIT || code == PCRE2_ERROR_JIT_STACKLIMIT) {
      return call.Fail("the pattern takes too many steps for this text");
    }
    // Codes for texts that are no UTF-8 are all in one range.
    if (code <= PCRE2_ERROR_UTF8_ERR1 && code >= PCRE2_ERROR_UTF8_ERR21) {
      const size_t place = pcre2_get_startchar(pattern->data.get());
      return call.Fail("'text' is no UTF-8 at byte " + std::to_string(place + 1));
    }
    return call.Fail(Message(code));
  }
  size_t CharacterLength() const {
    size_t length = 1;
    while (at + length < text.size() &&
           (static_cast<unsigned char>(text[at + length]) & 0xC0) == 0x80) {
      length++;
    }
    return length;
  }

  const Call& call;
  std::string_view text;
  Pattern* pattern = nullptr;
  bool failed = false;
  size_t at = 0;
  uint32_t after_empty = 0;
  size_t first = 0, last = 0;
  int matches = 0;
  Watch watch;
  unsigned tries = 0;
  const char* late = nullptr;  // why the match was given up, if it was
  std::exception_ptr thrown;
};

void SetText(ZPVARIABLE variable, std::string_view text) {
  zpVariable_SetValue(variable, text.data(), static_cast<int>(text.size()));
}

void MakeArray(ZPVARIABLE variable) {
  zpVariable_Delete_Array_Elements(1, -1, 1, variable);
}

bool Matcher::SetPart(ZPVARIABLE variable, std::string_view part, Size* size) {
  if (!Count(part, size)) return false;
  SetText(variable, part);
  return true;
}

bool Matcher::Store(ZPVARIABLE match, Size* size) {
  // The structure and its array count, too.
  if (!Count("", size) || !Count("", size) ||
      !SetPart(zpVariable_Struct_Member("match", -1, match, 1), Group(0), size)) {
    return false;
  }
  ZPVARIABLE const groups = zpVariable_Struct_Member("groups", -1, match, 1);
  MakeArray(groups);
  for (uint32_t i = 1; i <= pattern->groups; i++) {
    if (!SetPart(zpVariable_Array_Element(static_cast<int>(i), groups, 1), Group(i), size)) {
      return false;
    }
  }
  // Named groups are members, too.
  uint32_t names = 0, row = 0;
  PCRE2_SPTR table = nullptr;
  pcre2_pattern_info(pattern->code.get(), PCRE2_INFO_NAMECOUNT, &names);
  if (names == 0) return true;
  pcre2_pattern_info(pattern->code.get(), PCRE2_INFO_NAMEENTRYSIZE, &row);
  pcre2_pattern_info(pattern->code.get(), PCRE2_INFO_NAMETABLE, &table);
  for (uint32_t i = 0; i < names; i++, table += row) {
    const uint32_t number = static_cast<uint32_t>(table[0]) << 8 | table[1];
    if (!SetPart(zpVariable_Struct_Member(reinterpret_cast<const char*>(table + 2), -1, match, 1),
                 Group(number), size)) {
      return false;
    }
  }
  return true;
}

// Characters before a byte of a text that is UTF-8.
int CharactersBefore(std::string_view text, size_t end) {
  int count = 0;
  for (size_t i = 0; i < end; i++) count += (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
  return count;
}

bool Append(const Call& call, std::string_view part, std::string* to) {
  // The text is never larger, so the difference is not negative.
  if (part.size() > kMostResult - to->size()) return call.Fail("the result is larger than 64 MB");
  *to += part;
  return true;
}

// Appends a replacement: $1 or ${1} is a group, ${name} a named one, $0 the match, $$ a $.
bool AppendReplacement(const Call& call, const Matcher& match, std::string_view with,
                       std::string* to) {
  while (!with.empty()) {
    const size_t dollar = with.find('$');
    if (!Append(call, with.substr(0, dollar), to)) return false;
    if (dollar == std::string_view::npos) return true;
    with.remove_prefix(dollar + 1);
    if (with.starts_with('$')) {
      if (!Append(call, "$", to)) return false;
      with.remove_prefix(1);
      continue;
    }
    const bool braces = with.starts_with('{');
    std::string_view rest = with.substr(braces ? 1 : 0);
    size_t length = 0;
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    if (braces) {
      length = rest.find('}');
    } else {
      while (length < rest.size() && length < 2 && is_digit(rest[length])) length++;
    }
    // A $ with nothing that it could mean is itself.
    if (length == 0 || length == std::string_view::npos) {
      if (!Append(call, "$", to)) return false;
      continue;
    }
    const std::string name(rest.substr(0, length));
    const bool is_number = name.size() < 6 && std::all_of(name.begin(), name.end(), is_digit);
    const int number = is_number ? std::stoi(name) : match.NumberOf(name);
    if (number < 0 || number > static_cast<int>(match.groups())) {
      return call.Fail("'with' names a group that the pattern has not", name);
    }
    if (!Append(call, match.Group(static_cast<uint32_t>(number)), to)) return false;
    with = rest.substr(length + (braces ? 1 : 0));
  }
  return true;
}

// --- The functions -------------------------------------------------------------------------------

void Match(const Call& call) {
  std::string_view text, pattern;
  if (!call.Text(0, "text", &text) || !call.Text(1, "pattern", &pattern)) return;
  Matcher matcher(call, text, pattern);
  const bool found = matcher.Next();
  if (!matcher.ok()) return;
  zpVariable_SetValue_Integer(call.result, found ? CharactersBefore(text, matcher.begin()) + 1 : 0);
}

void Groups(const Call& call) {
  std::string_view text, pattern;
  if (!call.Text(0, "text", &text) || !call.Text(1, "pattern", &pattern)) return;
  Matcher matcher(call, text, pattern);
  Size size;
  if (matcher.Next()) matcher.Store(call.result, &size);
}

void All(const Call& call) {
  std::string_view text, pattern;
  if (!call.Text(0, "text", &text) || !call.Text(1, "pattern", &pattern)) return;
  Matcher matcher(call, text, pattern);
  MakeArray(call.result);
  Size size;
  for (int i = 1; matcher.Next(); i++) {
    if (!matcher.Store(zpVariable_Array_Element(i, call.result, 1), &size)) return;
  }
}

void Replace(const Call& call) {
  std::string_view text, pattern, with;
  if (!call.Text(0, "text", &text) || !call.Text(1, "pattern", &pattern) ||
      !call.Text(2, "with", &with)) {
    return;
  }
  Matcher matcher(call, text, pattern);
  std::string replaced;
  size_t from = 0;
  while (matcher.Next()) {
    // \K can make a match begin before the end of the last one.
    if (matcher.begin() < from) continue;
    if (!Append(call, text.substr(from, matcher.begin() - from), &replaced) ||
        !AppendReplacement(call, matcher, with, &replaced)) {
      return;
    }
    from = matcher.end();
  }
  if (matcher.ok() && Append(call, text.substr(from), &replaced)) SetText(call.result, replaced);
}

void Split(const Call& call) {
  std::string_view text, pattern;
  if (!call.Text(0, "text", &text) || !call.Text(1, "pattern", &pattern)) return;
  Matcher matcher(call, text, pattern);
  MakeArray(call.result);
  int parts = 0;
  Size size;
  size_t from = 0;
  while (matcher.Next()) {
    // An empty match parts characters, and nothing at both ends.
    const bool empty = matcher.begin() == matcher.end();
    if (matcher.begin() < from) continue;
    if (empty && (matcher.begin() == 0 || matcher.end() == text.size())) continue;
    const std::string_view part = text.substr(from, matcher.begin() - from);
    if (!matcher.Count(part, &size)) return;
    SetText(zpVariable_Array_Element(++parts, call.result, 1), part);
    from = matcher.end();
  }
  if (matcher.ok() && !text.empty() && matcher.Count(text.substr(from), &size)) {
    SetText(zpVariable_Array_Element(++parts, call.result, 1), text.substr(from));
  }
}

void Quote(const Call& call) {
  std::string_view text;
  if (!call.Text(0, "text", &text)) return;
  std::string quoted;
  for (const char& c : text) {
    if (c == '\0') {
      if (!Append(call, "\\x00", &quoted)) return;
      continue;
    }
    // Also what has a meaning only in sets and in extended patterns.
    if (strchr("\\^$.|?*+()[]{}-#/ \t\n\r\f\v", c) != nullptr) {
      if (!Append(call, "\\", &quoted)) return;
    }
    if (!Append(call, {&c, 1}, &quoted)) return;
  }
  SetText(call.result, quoted);
}

void Problem(const Call& call) {
  std::string_view pattern;
  if (!call.Text(0, "pattern", &pattern)) return;
  std::string problem;
  Compile(pattern, &problem);
  SetText(call.result, problem);
}

// --- The table -----------------------------------------------------------------------------------

// Memory that has run out ends the request, so its exception passes; no other one leaves the
// library.
template <void (*Function)(const Call&), const char* const& name>
void Run(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  if (program == nullptr) return;
  const Call call(program, parameters, result, name);
  try {
    Function(call);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& problem) {
    call.Fail(problem.what());
  }
}

#define NAME(text) text, sizeof(text) - 1
#define FUNCTION(name, count, function) \
  { NAME(#name), count, name##_parameters, Run<function, name##_text> }
#define NAMED(name) constexpr const char* name##_text = #name

NAMED(regexmatch);
NAMED(regexgroups);
NAMED(regexall);
NAMED(regexreplace);
NAMED(regexsplit);
NAMED(regexquote);
NAMED(regexproblem);

constinit _ZP_EL_Parameter regexmatch_parameters[] = {{NAME("text"), 0}, {NAME("pattern"), 0}};
constinit _ZP_EL_Parameter regexreplace_parameters[] = {
    {NAME("text"), 0}, {NAME("pattern"), 0}, {NAME("with"), 0}};
constinit _ZP_EL_Parameter regexquote_parameters[] = {{NAME("text"), 0}};
constinit _ZP_EL_Parameter regexproblem_parameters[] = {{NAME("pattern"), 0}};
_ZP_EL_Parameter* const regexgroups_parameters = regexmatch_parameters;
_ZP_EL_Parameter* const regexall_parameters = regexmatch_parameters;
_ZP_EL_Parameter* const regexsplit_parameters = regexmatch_parameters;

_ZP_EL_Function rows[] = {
    FUNCTION(regexmatch, 2, Match),     FUNCTION(regexgroups, 2, Groups),
    FUNCTION(regexall, 2, All),         FUNCTION(regexreplace, 3, Replace),
    FUNCTION(regexsplit, 2, Split),     FUNCTION(regexquote, 1, Quote),
    FUNCTION(regexproblem, 1, Problem), {nullptr, 0, 0, nullptr, nullptr},
};
_ZP_EL_FunctionTable table = {nullptr, rows};

}  // namespace

extern "C" __attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table() {
  return &table;
}

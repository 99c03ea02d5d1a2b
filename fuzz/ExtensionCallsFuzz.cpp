// Calls of the exported interface (api/zeph.h), in any order: those of functions that a script
// calls, of the functions of a database and of a commerce library, and of the clean-up of a
// request. Handles are alive, or null where the header allows it; numbers are any; texts have their
// own length, -1, a shorter one, or a negative one. Every request ends soon after its time, and
// releases its memory.
//
//   ExtensionCallsFuzz -max_len=2000 -rss_limit_mb=4000 -malloc_limit_mb=2500 CORPUS

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "api/zeph.h"
#include "base/core/ThreadMemory.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalConfig.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/ExternalLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/HTTPOutput.h"
#include "base/machine/ZephVM.h"
#include "base/values/LogRecord.h"
#include "base/values/Variable.h"
#include "fuzz/Input.h"
#include "fuzz/Require.h"
#include "fuzz/ScriptRun.h"
#include "fuzz/Watchdog.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/ScriptedConnection.h"
#include "tests/support/TestApplication.h"
#include "tools/Assembler.h"

namespace {

constexpr long kMemory = 300L << 20;  // what a request may allocate; more is no finding
constexpr int kSizeOfBuffer = 64;
constexpr size_t kMostExpressions = 20;
constexpr size_t kHandles = 4;  // of one kind that a function has

// --- A request -----------------------------------------------------------------------------------

// What the calls of one request share. Texts live until its end, each in a block of its own without
// a NUL, so that a read past it is found.
struct Request {
  explicit Request(Input* input) : input(input) {}

  const char* Keep(const std::string& text) {
    texts.push_back(std::make_unique<char[]>(text.size()));
    text.copy(texts.back().get(), text.size());
    return texts.back().get();
  }
  const char* KeepTerminated(const std::string& text) { return Keep(text + '\0'); }

  Input* input;
  ExternalConfig* config = nullptr;
  std::deque<std::unique_ptr<char[]>> texts;
  std::vector<ZPEXPRESSION> expressions;
  // The views of each database that a library may still use, and the fields of each view.
  std::map<ZPDATABASE, std::vector<ZPDATABASEVIEW>> views;
  std::map<ZPDATABASEVIEW, std::vector<ZPDATABASEVARIABLE>> fields;
  int depth = 0;
};

Request* request = nullptr;

// What a function of a library may use and do.
struct Context {
  ZPPROGRAM program = nullptr;
  ZPVARIABLEHASH parameters = nullptr;
  ZPVARIABLE variable = nullptr;  // a result, or another variable of the call
  ZPVARIABLELIST list = nullptr;
  ZPDATABASE database = nullptr;
  ZPDATABASEVIEW view = nullptr;
  ZPDATABASEVARIABLE field = nullptr;
  bool reads = false;  // nothing of the script may be changed or run
  bool ends = false;   // the database goes, and only the handles above are valid
};

// A text argument.
struct Text {
  const char* bytes;
  int length;
};

const char* const kNames[] = {
    "x",   "g",     "h",       "g.x", "l.a",      "f0",  "f1",   "first",  "second",
    "a",   "b",     "v",       "y",   "eof",      "g:m", "g[1]", "g[2]:m", "s.zeph_config",
    "d.x", "a.d.x", "zeph_no", "",    "g:m[1]:n", "m",   "0x1F", "-12.5",  "2147483648"};
const char* const kExpressions[] = {"g + 1",
                                    "f0(g)",
                                    "first(1, g)",
                                    "second()",
                                    "a.d.x",
                                    "g[1]:m",
                                    "1 +",
                                    "(",
                                    "",
                                    "f1(g, 2)",
                                    "h EQ g",
                                    "d.y $ 'text'",
                                    "second() + f0(second())"};
const char* const kPaths[] = {"f", "s", "no", "", "/", "a/b", "../f", "f/", "."};
const char* const kURLs[] = {"http://host/x", "https://host:444/",  "http://", "",
                             "host",          "HTTP://[::1]:0/?a=b"};
const int kPlaces[] = {1, 2, 3, 4, 5, 0, -1, -2, 17, 1000, 65536, INT_MAX, INT_MIN, INT_MAX - 1};

// The calls that one function of a library makes, with the handles that it makes for itself.
class Calls {
 public:
  explicit Calls(const Context& context) : of(context), in(*request->input) { request->depth++; }
  ~Calls() {
    for (ZPVARIABLE v : variables) zpVariable_Free(v);
    for (ZPVARIABLELIST list : lists) zpVariableList_Free(list);
    for (ZPVARIABLEHASH table : tables) zpVariableHash_Free(table);
    for (ZPLINKBUFFER buffer : buffers) zpLinkBuffer_Free(buffer);
    for (ZPFILE file : files) zpFile_Close(file);
    for (ZPNETWORK connection : connections) zpNetwork_Close(connection);
    for (ZPHTTPRESPONSE response : responses) zpHTTPResponse_Close(response);
    request->depth--;
  }
  Calls(const Calls&) = delete;
  Calls& operator=(const Calls&) = delete;

  void Make() {
    if (request->depth > 20) return;
    // A handle that is made has a place to be kept.
    lists.reserve(kHandles);
    tables.reserve(kHandles);
    buffers.reserve(kHandles);
    files.reserve(kHandles);
    connections.reserve(kHandles);
    responses.reserve(kHandles);
    for (ZPVARIABLE& v : variables) v = zpVariable_Allocate("own", -1, "value", -1);
    for (unsigned count = in.Byte() % 24; count > 0 && in.size() > 0; count--) One();
  }

 private:
  // --- Arguments
  // ----------------------------------------------------------------------------------
  unsigned Below(unsigned end) { return in.Byte() % end; }
  bool Flag() { return (in.Byte() & 1) != 0; }
  int Place() {
    const unsigned byte = in.Byte();
    return byte < 240 ? kPlaces[byte % std::size(kPlaces)] : static_cast<int8_t>(in.Byte());
  }
  double Number() {
    static const double numbers[] = {0, -0.0, 1.5, -3, 1e10, -1e300, 1e-300, NAN, INFINITY};
    return numbers[Below(std::size(numbers))];
  }
  // NUL-terminated.
  const char* Word() {
    return request->KeepTerminated(Below(4) == 0 ? in.Bytes(in.Byte() % 32) : in.Pick(kNames));
  }
  const char* WordOrNull() { return Below(3) == 0 ? nullptr : Word(); }
  template <size_t count>
  Text From(const char* const (&pool)[count]) {
    switch (Below(16)) {
      case 0: return {nullptr, Flag() ? INT_MAX : Place()};
      case 1: return {request->KeepTerminated(in.Pick(pool)), Flag() ? -2 : INT_MIN};
      case 2: return {request->KeepTerminated(in.Pick(pool)), -1};
      case 3: {
        const std::string text = in.Bytes(in.Byte() % 64);
        return {request->Keep(text), static_cast<int>(text.size())};
      }
      case 4: {
        const std::string text(in.Word() * 16, 'l');
        return {request->Keep(text), static_cast<int>(text.size())};
      }
      case 5: return {request->Keep(in.Pick(pool)), 0};
      default: {
        const std::string text = in.Pick(pool);
        return {request->Keep(text), static_cast<int>(text.size())};
      }
    }
  }
  Text Name() { return From(kNames); }
  // The same, or a part of what a variable has.
  Text Value() {
    if (Below(4) != 0) return Name();
    int length = 0;
    const ZPVARIABLE v = Own();
    const char* const own = Flag() ? zpVariable_Value(v, &length) : zpVariable_Name(v, &length);
    Require(length >= 0);
    if (!own) return {nullptr, 0};
    const int begin = static_cast<int>(in.Word() % (static_cast<unsigned>(length) + 1));
    return {own + begin, length - begin};
  }
  struct FreeText {
    void operator()(char* text) const { zpProgram_Free(nullptr, text); }
  };
  using OwnedText = std::unique_ptr<char[], FreeText>;
  // Memory that the engine can adopt, with a NUL at its end; a length of -1 goes with it.
  OwnedText Owned(int* length, int* allocated) {
    const int size = static_cast<int>(1 + Below(40));
    OwnedText bytes(static_cast<char*>(zpProgram_Allocate(of.program, size)));
    memset(bytes.get(), 'o', static_cast<size_t>(size));
    *length = Below(4) == 0 ? -1 : static_cast<int>(Below(static_cast<unsigned>(size) + 1));
    if (*length == -1) bytes[static_cast<size_t>(size) - 1] = '\0';
    *allocated = size;
    return bytes;
  }
  int* Length() { return Flag() ? &out_length : nullptr; }
  int* Size() { return Flag() ? &out_size : nullptr; }
  void Drop(char* text) { zpProgram_Free(of.program, text); }

  // --- Handles
  // ------------------------------------------------------------------------------------
  ZPVARIABLE Own() { return variables[Below(std::size(variables))]; }
  // One of the caller's, of the script or of a database; it may go with any other call.
  ZPVARIABLE Any() {
    if (of.reads) return Own();
    ZPVARIABLE found = nullptr;
    switch (Below(10)) {
      case 0: found = of.variable; break;
      case 1:
        if (of.parameters)
          found = zpVariableHash_Index(of.parameters, static_cast<int>(Below(3)), 1);
        break;
      case 2: found = zpProgram_Lookup_Variable(of.program, "g.g", -1); break;
      case 3:
        found = zpVariableHash_Find(zpProgram_System_VariableHash(of.program), Word(), -1);
        break;
      case 4:
        if (of.field) found = reinterpret_cast<ZPVARIABLE>(of.field);
        break;
      case 5: found = zpVariable_Array_Element(Place(), Own(), Flag()); break;
      case 6:
        if (of.list) found = zpVariableList_First(of.list);
        break;
      default: break;
    }
    return found ? found : Own();
  }
  ZPVARIABLELIST List() {
    if (of.list && !of.reads && Below(4) == 0) return of.list;
    if (lists.size() < 2) lists.push_back(zpVariableList_Allocate());
    return lists[Below(static_cast<unsigned>(lists.size()))];
  }
  ZPVARIABLEHASH OwnTable() {
    if (tables.size() < 2) tables.push_back(zpVariableHash_Allocate());
    return tables[Below(static_cast<unsigned>(tables.size()))];
  }
  ZPVARIABLEHASH Table() {
    if (!of.reads) {
      switch (Below(6)) {
        case 0: return zpProgram_Global_VariableHash(of.program);
        case 1: return zpProgram_System_VariableHash(of.program);
        case 2:
          if (of.parameters) return of.parameters;
          break;
        default: break;
      }
    }
    return OwnTable();
  }
  ZPLINKBUFFER Buffer() {
    if (buffers.size() < 2)
      buffers.push_back(zpLinkBuffer_Allocate(Place() % 5000, Place() % 5000));
    return buffers[Below(static_cast<unsigned>(buffers.size()))];
  }

  // --- One call
  // -----------------------------------------------------------------------------------
  void One() {
    switch (Below(of.reads ? 6 : 14)) {
      case 0: return OnValue();
      case 1: return OnElements();
      case 2: return OnList();
      case 3: return OnTable();
      case 4: return OnBuffer();
      case 5: return OnText();
      case 6:
      case 7: return OnProgram();
      case 8: return OnFiles();
      case 9: return OnNetwork();
      case 10: return OnOlder();
      case 11: return OnConfig();
      default: return OnDatabase();
    }
  }

  void OnValue() {
    switch (Below(16)) {
      case 0: zpVariable_SetValue_Integer(Any(), Place()); break;
      case 1: zpVariable_SetValue_Double(Any(), Number()); break;
      case 2:
      case 3: {
        const Text text = Value();
        zpVariable_SetValue(Own(), text.bytes, text.length);
        break;
      }
      case 4: {
        const Text text = Name();
        zpVariable_SetValue(Any(), text.bytes, text.length);
        break;
      }
      case 5: zpVariable_SetValue_Variable(Any(), Own()); break;
      case 6: zpVariable_SetValue_Variable(Own(), Any()); break;
      case 7: {
        int length, size;
        OwnedText owned = Owned(&length, &size);
        const ZPVARIABLE v = Own();
        zpVariable_SetValue_Nocopy(v, owned.release(), length, size);
        break;
      }
      case 8: zpVariable_Free(zpVariable_Allocate_Copy(Any())); break;
      case 9: zpVariable_Make_Reference(Own(), Flag() ? nullptr : Any()); break;
      case 10: zpVariable_Make_Reference(Any(), Own()); break;
      case 11: Drop(zpVariable_Value_NS(Any(), Length())); break;
      case 12: {
        const ZPVARIABLE v = Any();
        Require(zpVariable_Value(v, &out_length) || out_length == 0);
        zpVariable_Name(v, Length());
        zpVariable_Value_Integer(v);
        zpVariable_Value_Double(v);
        break;
      }
      case 13: {
        const ZPVARIABLE v = Any();
        const int type = zpVariable_Type(v), kind = zpVariable_Aggregate_Type(v);
        Require(type >= -1 && type <= 5 && kind >= -1 && kind <= 2);
        Require((type == 5) == (kind == 1) && (type == 4) == (kind == 2));
        Require(zpVariable_RealIdentity(v) != nullptr);
        zpVariable_NextIdentity(v);
        break;
      }
      case 14: zpVariable_Free(nullptr); break;
      default: {
        const Text name = Value(), value = Name();
        ZPVARIABLE& changed = variables[Below(std::size(variables))];
        const ZPVARIABLE made =
            zpVariable_Allocate(name.bytes, name.length, value.bytes, value.length);
        zpVariable_Free(std::exchange(changed, made));
      }
    }
  }

  void OnElements() {
    switch (Below(14)) {
      case 0: zpVariable_Array_Element(Place(), Any(), Flag()); break;
      case 1: {
        const Text name = Value();
        zpVariable_Struct_Member(name.bytes, name.length, Own(), Flag());
        break;
      }
      case 2: zpVariable_Set_Array_Element(Place(), Own(), Any()); break;
      case 3: zpVariable_Set_Array_Element(Place(), Any(), Own()); break;
      case 4: {
        const Text name = Name();
        zpVariable_Set_Struct_Member(name.bytes, name.length, Own(), Any());
        break;
      }
      case 5: zpVariable_Insert_Array_Element(Place(), Own(), Any()); break;
      case 6: zpVariable_Delete_Array_Elements(Place(), Place(), Flag(), Any()); break;
      case 7: {
        const Text name = Value();
        zpVariable_Delete_Struct_Member(name.bytes, name.length, Own());
        break;
      }
      case 8: zpVariable_Array_Merge(Own(), Place(), Place(), Place(), Flag(), Any()); break;
      case 9: zpVariable_Array_Copy(Own(), Place(), Place(), Place(), Flag(), Any()); break;
      case 10: {
        const ZPVARIABLE array = Own();
        zpVariable_Array_Collapse(array);
        const ZPVARIABLE element = zpVariable_Array_Element(1, array, 0);
        const bool up = Flag();
        if (element) zpVariable_SetValue_Variable(up ? array : element, up ? element : array);
        break;
      }
      case 11: zpVariable_Aggregate_List(Any(), List()); break;
      case 12: {
        const ZPVARIABLE v = Any();
        Require(zpVariable_ElementsUsed(v) >= 0);
        zpVariable_Array_Max(v);
        zpVariable_Array_Min(v);
        break;
      }
      default: zpVariable_Array_Next(Place(), Any()); zpVariable_Array_Previous(Place(), Any());
    }
  }

  void OnList() {
    const ZPVARIABLELIST list = List();
    switch (Below(8)) {
      case 0:
        if (zpVariableList_Entries(list) < 30) zpVariableList_Insert(list, Any());
        break;
      case 1:
      case 2: {
        const Text name = Value(), value = Name();
        zpVariableList_SetVariable(list, name.bytes, name.length, value.bytes, value.length);
        break;
      }
      case 3: {
        const Text name = Name();
        const ZPVARIABLE found = zpVariableList_Find(list, name.bytes, name.length);
        Require(!found || zpVariableList_Current(list) == found);
        break;
      }
      case 4:
        zpVariableList_First(list);
        zpVariableList_Next(list);
        zpVariableList_Current(list);
        break;
      case 5:
        if (list != of.list && Flag()) zpVariableList_Dump(list);
        break;
      case 6: zpVariableList_Free(nullptr); break;
      default: {
        int count = 0;
        for (ZPVARIABLE v = zpVariableList_First(list); v; v = zpVariableList_Next(list)) count++;
        Require(count == zpVariableList_Entries(list));
      }
    }
  }

  void OnTable() {
    switch (Below(8)) {
      case 0: {
        const Text name = Name();
        const ZPVARIABLEHASH table = OwnTable();
        zpVariableHash_Insert(table, zpVariable_Allocate(name.bytes, name.length, "x", -1));
        break;
      }
      case 1: {
        const Text name = Name();
        const ZPVARIABLEHASH table = Table();
        zpVariableHash_ReplaceVariable(table,
                                       zpVariable_Allocate(name.bytes, name.length, "y", -1));
        break;
      }
      case 2: {
        const Text name = Value(), value = Name();
        zpVariableHash_SetVariable(Table(), name.bytes, name.length, value.bytes, value.length);
        break;
      }
      case 3: {
        const Text name = Value();
        zpVariableHash_Find(Table(), name.bytes, name.length);
        break;
      }
      case 4: zpVariableHash_Index(Table(), Place(), Flag()); break;
      case 5: Require(zpVariableHash_Entries(Table()) >= 0); break;
      case 6: zpVariableHash_Free(nullptr); break;
      default:
        if (Flag()) zpVariableHash_Dump(OwnTable());
    }
  }

  void OnBuffer() {
    const ZPLINKBUFFER buffer = Buffer();
    switch (Below(12)) {
      case 0: {
        const Text text = Name();
        if (text.bytes) {
          zpLinkBuffer_Concat_String(buffer, text.bytes, text.length);
        } else {
          zpLinkBuffer_Concat_String(buffer, nullptr, 0);
        }
        break;
      }
      case 1: {
        int length, size;
        OwnedText owned = Owned(&length, &size);
        zpLinkBuffer_Concat_String_Nocopy(buffer, owned.release(), length, size);
        break;
      }
      case 2: zpLinkBuffer_Concat_String_Nocopy(buffer, nullptr, -1, 0); break;
      case 3: zpLinkBuffer_Concat_Char(buffer, static_cast<char>(in.Byte())); break;
      case 4: zpLinkBuffer_Concat_HexChar(buffer, static_cast<unsigned char>(in.Byte())); break;
      case 5: zpLinkBuffer_Concat_Int(buffer, Place()); break;
      case 6: zpLinkBuffer_Concat_Double(buffer, Number()); break;
      case 7: zpLinkBuffer_Concat_Variable(buffer, Any()); break;
      case 8: {
        const char* const text = zpLinkBuffer_Data(buffer, &out_length, Size());
        Require(text && out_length >= 0 && text[out_length] == '\0');
        break;
      }
      case 9: {
        // A part of its own text.
        const char* const text = zpLinkBuffer_Data(buffer, &out_length, nullptr);
        const int begin = static_cast<int>(in.Word() % (static_cast<unsigned>(out_length) + 1));
        if (out_length < 100000) {
          zpLinkBuffer_Concat_String(buffer, text + begin, out_length - begin);
        }
        break;
      }
      case 10: zpLinkBuffer_Free(nullptr); break;
      default: {
        const int extra = Place();
        char* const text = zpLinkBuffer_Release(buffer, &out_length, &out_size, extra);
        Require(text && out_length >= 0 && out_size >= out_length);
        if (extra > 0) Require(text[out_length] == '\0');
        Drop(text);
      }
    }
  }

  void OnText() {
    const Text text = Value();
    const ZPPROGRAM p = of.program;
    switch (Below(9)) {
      case 0: Drop(zpProgram_Attribute_Encode(p, text.bytes, text.length, Length(), Size())); break;
      case 1: Drop(zpProgram_Attribute_Decode(p, text.bytes, text.length, Length(), Size())); break;
      case 2: Drop(zpProgram_Entity_Encode(p, text.bytes, text.length, Length(), Size())); break;
      case 3: Drop(zpProgram_Entity_Decode(p, text.bytes, text.length, Length(), Size())); break;
      case 4:
        Drop(zpProgram_JavaScriptString_Encode(p, text.bytes, text.length, Length(), Size()));
        break;
      case 5: Drop(zpProgram_MakeSessionID(p, Length())); break;
      case 6: zpProgram_Free(nullptr, zpProgram_Allocate(nullptr, Place())); break;
      case 7: {
        // malloc returns null if there is not so much.
        void* const memory = zeph_alloc(Place() % 100000);
        void* const moved =
            memory ? zeph_realloc(memory, 1 + static_cast<int>(Below(99))) : nullptr;
        zeph_free(moved ? moved : memory);
        break;
      }
      default: {
        const char* const charset = zpProgram_GetCharacterSet(p, &out_length);
        Require(charset || out_length == 0);
        zpProgram_CharacterSetIsUTF8(p);
      }
    }
  }

  void OnProgram() {
    const ZPPROGRAM p = of.program;
    switch (Below(26)) {
      case 0: {
        const Text name = Name();
        zpProgram_Lookup_Variable(p, name.bytes, name.length);
        break;
      }
      case 1: zpProgram_Local_Variables(p, List()); break;
      case 2: zpProgram_System_Variables(p, List()); break;
      case 3: zpProgram_Global_Variables(p, List()); break;
      case 4: {
        // The second argument is the one that may go.
        const ZPVARIABLE left = Own();
        zpProgram_Compare(p, left, Any());
        break;
      }
      case 5: {
        const Text name = Name();
        zpProgram_SetProcessName(p, name.bytes, name.length);
        break;
      }
      case 6: {
        const Text name = Name();
        zpProgram_SetLanguage(p, name.bytes, name.length);
        zpProgram_SetDefaultLanguage(p, name.bytes, name.length);
        break;
      }
      case 7: {
        const Text name = Name();
        zpProgram_SetDefaultDatabase(p, name.bytes, name.length);
        break;
      }
      case 8: {
        const Text name = Name();
        zpProgram_SetCharacterSet(p, name.bytes, name.length);
        break;
      }
      case 9: {
        const Text text = Name();
        zpProgram_Output(p, text.bytes, text.length == -1 ? 0 : text.bytes ? text.length : 0);
        break;
      }
      case 10: Header(); break;
      case 11: zpProgram_Output_Flush(p); break;
      case 12:
      case 13: Persistent(); break;
      case 14: {
        const Text name = Name();
        zpProgram_Lookup_Persistent(p, name.bytes, name.length);
        break;
      }
      case 15: {
        const Text name = Name();
        const _ZP_EL_Function* const row =
            zpProgram_Lookup_ExternalFunction(p, name.bytes, name.length);
        Require(!row || row->function);
        break;
      }
      case 16:
      case 17: {
        const Text name = Name();
        const ZPVARIABLELIST arguments = Flag() ? List() : nullptr;
        zpProgram_RunFunction(p, name.bytes, name.length, arguments, Flag() ? Any() : nullptr);
        break;
      }
      case 18: {
        const Text text = From(kExpressions);
        char* error = nullptr;
        const bool wants = Flag();
        const ZPEXPRESSION made = zpProgram_Compile_Dynamic_Expression(
            p, text.bytes, text.length, wants ? &error : nullptr, Length());
        Require(!wants || (made == nullptr) == (error != nullptr));
        zpProgram_Free(p, error);
        if (made && request->expressions.size() < kMostExpressions) {
          request->expressions.push_back(made);
        }
        break;
      }
      case 19:
      case 20:
        if (const ZPEXPRESSION made = Expression())
          zpProgram_Execute_Dynamic_Expression(p, made, Any());
        break;
      case 21:
        if (const ZPEXPRESSION made = Expression()) {
          zpProgram_Execute_Dynamic_Expression_Boolean(p, made, Length());
        }
        break;
      case 22: {
        zpProgram_ResetGlobalTimeout(p);
        zpProgram_Sleep(p, Place());
        const Text path = From(kPaths);
        zpProgram_Asynchronous_Sleep(p, Flag() ? LONG_MAX : Place(), Place(), path.bytes,
                                     path.length);
        break;
      }
      case 23:
        if (Below(4) == 0) {
          const Text text = Name();
          Require(zpProgram_FatalError(p, text.bytes, text.length) == 0);
        }
        break;
      case 24: zpProgram_SSL_Function(p, Word()); break;
      default: {
        const ZPSYSTEMLIBRARY library = zpProgram_SystemLibrary(p, Word());
        if (library) zpSystemLibrary_GetFunction(library, Word());
        zpSystemLibrary_Error(p, Flag() ? library : nullptr, Length());
      }
    }
  }
  ZPEXPRESSION Expression() {
    const auto count = static_cast<unsigned>(request->expressions.size());
    return count > 0 ? request->expressions[Below(count)] : nullptr;
  }
  void Header() {
    const bool owned = Flag();
    if (!owned) {
      zpProgram_Output_Header(of.program, "Name", Flag() ? 4 : -1, 0, "Value", Place() & 3, 0);
      return;
    }
    int name_length, value_length, size;
    OwnedText name = Owned(&name_length, &size);
    OwnedText value = Owned(&value_length, &size);
    if (Below(4) == 0) name[0] = static_cast<char>(in.Byte());
    zpProgram_Output_Header(of.program, name.release(), name_length, 1, value.release(),
                            value_length, 1);
  }
  void Persistent();

  // --- Files and connections
  // ----------------------------------------------------------------------
  void OnFiles() {
    const ZPPROGRAM p = of.program;
    const int place = static_cast<int>(Below(5)), other = static_cast<int>(Below(5));
    const Text path = From(kPaths), to = From(kPaths);
    switch (Below(20)) {
      case 0:
      case 1:
        if (files.size() < kHandles) {
          if (ZPFILE file = zpFile_Open(p, place, path.bytes, path.length, Place() & 63)) {
            files.push_back(file);
          }
        }
        break;
      case 2: zpFile_Delete(p, place, path.bytes, path.length); break;
      case 3:
        zpFile_Rename(p, place, path.bytes, path.length, other, to.bytes, to.length);
        zpFile_Copy(p, place, path.bytes, path.length, other, to.bytes, to.length);
        zpFile_MakeSymbolicLink(p, place, path.bytes, path.length, other, to.bytes, to.length);
        break;
      case 4:
        zpFile_Exists(p, place, path.bytes, path.length);
        zpFile_IsDirectory(p, place, path.bytes, path.length);
        zpFile_Size(p, place, path.bytes, path.length);
        zpFile_Time(p, place, path.bytes, path.length);
        zpFile_Mode(p, place, path.bytes, path.length);
        break;
      case 5:
        zpFile_Change_Mode(p, place, path.bytes, path.length, Place());
        zpFile_MakeDirectory(p, place, path.bytes, path.length);
        zpFile_RemoveDirectory(p, place, path.bytes, path.length);
        zpFile_TouchFile(p, place, path.bytes, path.length);
        zpFile_LockFile(p, place, path.bytes, path.length);
        break;
      case 6: Drop(zpFile_NormalizePath(p, place, path.bytes, path.length, Length())); break;
      case 7: {
        char* name = nullptr;
        const bool wants = Flag();
        zpFile_Close(zpFile_MakeTemporary(p, place, path.bytes, path.length, to.bytes, to.length,
                                          wants ? &name : nullptr, 63));
        Drop(name);
        break;
      }
      case 8: zpDirectory_Listing(p, place, path.bytes, path.length, List()); break;
      case 9:
        Require(!zpFile_Resolve(p, place, path.bytes, path.length));
        zpFile_Error(p, nullptr, Length());
        zpFile_Path_Separator(p);
        zpFile_Close(nullptr);
        break;
      default:
        if (!files.empty()) OnFile(files[Below(static_cast<unsigned>(files.size()))]);
    }
  }
  void OnFile(ZPFILE file) {
    char bytes[kSizeOfBuffer];
    switch (Below(8)) {
      case 0:
        Require(zpFile_Read(file, bytes, static_cast<int>(Below(kSizeOfBuffer + 1))) >= -1);
        break;
      case 1: zpFile_Read(file, bytes, Flag() ? -1 : INT_MIN); break;
      case 2: {
        const Text text = Name();
        zpFile_Write(file, text.bytes, text.bytes ? text.length : 0);
        break;
      }
      case 3: zpFile_Seek(file, Flag() ? LONG_MAX : Place()); break;
      case 4:
        zpFile_Tell(file);
        zpFile_Length(file);
        zpFile_OwnerID(file);
        zpFile_GroupID(file);
        break;
      case 5: zpFile_Lock(file, Place()); break;
      case 6: zpFile_Release(file); break;
      default: zpFile_Error(of.program, file, Length());
    }
  }

  void OnNetwork() {
    const ZPPROGRAM p = of.program;
    char bytes[kSizeOfBuffer];
    switch (Below(10)) {
      case 0: zpNetwork_Is_IP_Address(p, Word()); break;
      case 1: zpNetwork_Get_Host_Address(p, Word(), bytes, Place() % (kSizeOfBuffer + 1)); break;
      case 2: Keep(zpNetwork_Connect(p, Word(), Place(), Place())); break;
      case 3:
        Keep(zpNetwork_Connect_SSL(p, Word(), Place(), WordOrNull(), WordOrNull(), WordOrNull(),
                                   WordOrNull(), Place()));
        break;
      case 4: {
        const char* const body = WordOrNull();
        Keep(zpNetwork_Open_URL(p, request->KeepTerminated(in.Pick(kURLs)), Word(), body, Word(),
                                body ? -1 : 0, nullptr, nullptr, nullptr, nullptr, WordOrNull(), -1,
                                Place()));
        break;
      }
      case 5: {
        const char* const body = WordOrNull();
        const ZPHTTPRESPONSE response = zpNetwork_HTTP_Request(
            p, request->KeepTerminated(in.Pick(kURLs)), Word(), body, Word(), body ? -1 : 0,
            nullptr, nullptr, nullptr, nullptr, WordOrNull(), -1, Number(), Place());
        if (responses.size() == kHandles) {
          zpHTTPResponse_Close(response);
        } else if (response) {
          responses.push_back(response);
        }
        break;
      }
      case 6:
        zpNetwork_Error(p, nullptr, Length());
        zpNetwork_Close(nullptr);
        zpHTTPResponse_Close(nullptr);
        break;
      case 7:
        if (!responses.empty()) {
          zpHTTPResponse_Status_Code(responses.back());
          zpHTTPResponse_Content_Length(responses.back());
          Require(zpHTTPResponse_Read(responses.back(), bytes,
                                      static_cast<int>(Below(kSizeOfBuffer + 1))) <= kSizeOfBuffer);
          zpHTTPResponse_Error(responses.back(), Length());
        }
        break;
      default:
        if (!connections.empty()) OnConnection(connections.back());
    }
  }
  void Keep(ZPNETWORK connection) {
    if (connections.size() == kHandles) {
      zpNetwork_Close(connection);
    } else if (connection) {
      connections.push_back(connection);
    }
  }
  void OnConnection(ZPNETWORK connection) {
    char bytes[kSizeOfBuffer];
    const int length = static_cast<int>(Below(kSizeOfBuffer + 1));
    switch (Below(4)) {
      case 0: zpNetwork_Read(connection, bytes, length, Place()); break;
      case 1: {
        const int count =
            zpNetwork_Read_Line(connection, bytes, Flag() ? length : -length, Place());
        Require(count < 0 || memchr(bytes, '\0', kSizeOfBuffer) == bytes + count);
        break;
      }
      case 2: zpNetwork_Write(connection, "bytes", static_cast<int>(Below(6)), Place()); break;
      default: zpNetwork_Error(of.program, connection, Length());
    }
  }

  // --- The older family, and settings
  // -------------------------------------------------------------
  void OnOlder() {
    const ZPPROGRAM p = of.program;
    const int place = static_cast<int>(Below(3));
    switch (Below(14)) {
      case 0:
        Require(zeph_variable_name(Own()) != nullptr);
        Require(zeph_variable_value(Own()) != nullptr);
        break;
      case 1: zeph_variable_setvalue(Any(), WordOrNull()); break;
      case 2: zeph_variable_delete(zeph_variable_new(WordOrNull(), WordOrNull())); break;
      case 3:
        zeph_variable_array_element(Any(), Place());
        zeph_variable_structure_member(Own(), Word());
        break;
      case 4: zeph_variable_set_array_element_value(Own(), Place(), WordOrNull()); break;
      case 5: zeph_variable_set_structure_member_value(Own(), Word(), WordOrNull()); break;
      case 6: {
        const ZPVARIABLE v = Any();
        zeph_variable_array_elements(v);
        zeph_variable_array_min(v);
        zeph_variable_array_max(v);
        zeph_variable_aggregate_type(v);
        zeph_variable_aggregate_list(v, List());
        break;
      }
      case 7: {
        const std::unique_ptr<VariableList, decltype(&zeph_variablelist_delete)> made(
            zeph_variablelist_new(), zeph_variablelist_delete);
        const ZPVARIABLELIST list = made.get();
        zeph_variablelist_setvariable(list, Word(), WordOrNull());
        zeph_variablelist_find(list, Word());
        zeph_variablelist_first(list);
        zeph_variablelist_next(list);
        zeph_variablelist_current(list);
        zeph_free(zeph_variablelist_to_url(Word(), list));
        if (Flag()) zeph_variablelist_dump(list);
        break;
      }
      case 8: {
        const std::unique_ptr<VariableHash, decltype(&zeph_variabletree_delete)> made(
            zeph_variabletree_new(), zeph_variabletree_delete);
        const ZPVARIABLEHASH tree = made.get();
        const char* const name = Word();
        zeph_variabletree_setvariable(tree, Word(), WordOrNull());
        zeph_variabletree_insert(tree, zeph_variable_new(name, name));
        zeph_variabletree_find(tree, name);
        if (Flag()) zeph_variabletree_dump(tree);
        break;
      }
      case 9:
        zeph_network_isipaddress(p, Word());
        zeph_network_close(zeph_network_connect(p, Word(), Place(), Place()));
        zeph_network_close(zeph_network_openurl(p, request->KeepTerminated(in.Pick(kURLs)), Word(),
                                                WordOrNull(), Word(), -1, Place()));
        Require(zeph_network_error(p, nullptr) != nullptr);
        break;
      case 10:
        if (files.size() == kHandles) break;
        if (ZPFILE file = zeph_file_open(p, place, Word(), Place() & 63)) {
          files.push_back(file);
          zeph_file_write(file, "old", 3);
          zeph_file_seek(file, Place());
          zeph_file_length(file);
          zeph_file_lock(file, 2);
        }
        break;
      case 11:
        zeph_file_rename(p, place, Word(), 1, Word());
        zeph_file_exists(p, place, Word());
        zeph_file_size(p, place, Word());
        zeph_file_delete(p, place, Word());
        break;
      case 12:
        zeph_variable_delete(nullptr);
        zeph_variablelist_delete(nullptr);
        zeph_variabletree_delete(nullptr);
        zeph_file_close(nullptr);
        zeph_network_close(nullptr);
        zeph_free(nullptr);
        break;
      default: Require(zeph_file_error(p, nullptr) != nullptr);
    }
  }

  void OnConfig() {
    const ZPCONFIG config = request->config;
    switch (Below(6)) {
      case 0: {
        const int id = static_cast<int>(in.Word());
        int length, size;
        OwnedText owned = Owned(&length, &size);
        if (zpConfig_SetValue(config, id, owned.get(), length, 1) == 0) (void)owned.release();
        break;
      }
      case 1:
        zpConfig_SetValue_Integer(config, Flag() ? Place() : static_cast<int>(in.Word()), Place());
        break;
      case 2:
        zpConfig_Register_Library_Commerce(config, Word(), Word());
        zpConfig_Register_Library_Database(config, Word(), Word());
        zpConfig_Register_Library_System(config, Word(), Word());
        break;
      case 3: {
        const Text name = Name(), value = Name();
        zpConfig_SetVariable_Global(config, name.bytes, name.length, value.bytes, value.length);
        zpConfig_SetVariable_System(config, name.bytes, name.length, value.bytes, value.length);
        break;
      }
      default: {
        const Text tag = Name();
        zpConfig_Set_DefaultErrorSetting(config, tag.bytes, tag.length, 0);
      }
    }
  }

  // --- Databases
  // ----------------------------------------------------------------------------------
  void OnDatabase() {
    if (of.field && Flag()) return OnField(of.field);
    ZPDATABASEVIEW view = of.view;
    if (!view && of.database && !of.ends) {
      const auto& views = request->views[of.database];
      if (!views.empty()) view = views[Below(static_cast<unsigned>(views.size()))];
    }
    if (view && Below(3) != 0) return OnView(view);
    if (of.database) OnOpenDatabase(of.database);
  }
  void OnOpenDatabase(ZPDATABASE database) {
    switch (Below(5)) {
      case 0: zpDatabase_SetData(database, Data()); break;
      case 1: zpDatabase_data(database); break;
      case 2: Require(zpDatabase_Program(database) == of.program); break;
      case 3: AddView(database); break;
      default: {
        if (of.ends) break;
        auto& views = request->views[database];
        if (!views.empty()) {
          zpDatabase_SetPrimaryView(database, views[Below(static_cast<unsigned>(views.size()))]);
        }
      }
    }
  }
  void AddView(ZPDATABASE database) {
    static const char* const names[] = {"a", "v", "x", ""};
    const Text name = From(names);
    const ZPDATABASEVIEW view = zpDatabase_AddView(database, name.bytes, name.length, Data());
    if (!view) return;
    request->fields[view].clear();
    if (!of.ends) request->views[database].push_back(view);
    for (unsigned count = Below(4); count > 0; count--) AddField(view);
  }
  void AddField(ZPDATABASEVIEW view) {
    const Text name = Name();
    const ZPDATABASEVARIABLE field =
        zpDatabaseView_AddVariable(view, name.bytes, name.length, Data());
    if (field) request->fields[view].push_back(field);
  }
  void OnView(ZPDATABASEVIEW view) {
    switch (Below(10)) {
      case 0: zpDatabaseView_SetData(view, Data()); break;
      case 1: zpDatabaseView_data(view); break;
      case 2: zpDatabaseView_Clear(view); break;
      case 3:
      case 4: AddField(view); break;
      case 5: zpDatabaseView_Commit(view); break;
      case 6: zpDatabaseView_SetDirty(view); break;
      case 7:
        Require(zpDatabaseView_Program(view) == of.program);
        Require(zpDatabaseView_Database(view) != nullptr);
        break;
      default: {
        const auto& fields = request->fields[view];
        if (!fields.empty()) OnField(fields[Below(static_cast<unsigned>(fields.size()))]);
      }
    }
  }
  void OnField(ZPDATABASEVARIABLE field) {
    const auto variable = reinterpret_cast<ZPVARIABLE>(field);
    switch (Below(10)) {
      case 0: zpDatabaseVariable_SetData(field, Data()); break;
      case 1: zpDatabaseVariable_data(field); break;
      case 2: Require(zpDatabaseVariable_DatabaseView(field) != nullptr); break;
      case 3:
      case 4: zpDatabaseVariable_SetDirty(field, static_cast<int>(Below(3))); break;
      case 5: zpVariable_Type(variable); break;
      case 6: zpVariable_SetValue_Integer(variable, Place()); break;
      case 7: {
        const Text text = Name();
        zpVariable_SetValue(variable, text.bytes, text.length);
        break;
      }
      case 8: zpVariable_SetValue_Variable(variable, Own()); break;
      default: zpVariable_Value(variable, Length());
    }
  }
  void* Data() { return Flag() ? nullptr : &word; }

  static inline int word = 0;

  const Context of;
  Input& in;
  ZPVARIABLE variables[3] = {};
  std::vector<ZPVARIABLELIST> lists;
  std::vector<ZPVARIABLEHASH> tables;
  std::vector<ZPLINKBUFFER> buffers;
  std::vector<ZPFILE> files;
  std::vector<ZPNETWORK> connections;
  std::vector<ZPHTTPRESPONSE> responses;
  int out_length = 0, out_size = 0;
};

// A function of the library. Some handle the end of the memory themselves.
void Work(const Context& context) {
  try {
    Calls(context).Make();
  } catch (const std::bad_alloc&) {
    if (request->input->Byte() & 1) throw;
  }
}
// One that must not throw.
void WorkToTheEnd(const Context& context) {
  try {
    Calls(context).Make();
  } catch (const std::bad_alloc&) {
  }
}

void Calls::Persistent() {
  const Text name = Name();
  if (Flag()) {
    // If there is no memory, the data stays the library's.
    OwnedText data(Flag() ? nullptr : static_cast<char*>(zpProgram_Allocate(of.program, 9)));
    zpProgram_Register_Persistent(of.program, name.bytes, name.length, data.get(), nullptr);
    (void)data.release();
    return;
  }
  static int data;
  zpProgram_Register_Persistent(of.program, name.bytes, name.length, &data,
                                [](void* program, void* registered) {
                                  Require(registered == &data);
                                  Context context;
                                  context.program = static_cast<ZPPROGRAM>(program);
                                  WorkToTheEnd(context);
                                });
}

// --- The library's tables ------------------------------------------------------------------------

void CallFunction(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  if (!program) {
    delete static_cast<int*>(*state);
    return;
  }
  if (!*state && (request->input->Byte() & 1)) *state = new int(1);
  Context context;
  context.program = program;
  context.parameters = parameters;
  context.variable = result;
  Work(context);
}

_ZP_EL_Parameter first_parameters[] = {{"a", 1, 0}, {"b", 1, _ZP_EL_ByReference}};
_ZP_EL_Function function_rows[] = {{"first", 5, 2, first_parameters, CallFunction},
                                   {"second", 6, 0, nullptr, CallFunction},
                                   {nullptr, 0, 0, nullptr, nullptr}};
_ZP_EL_FunctionTable function_table = {nullptr, function_rows};

Context OfCommerce(ZPPROGRAM program, ZPVARIABLELIST fields) {
  Context context;
  context.program = program;
  context.list = fields;
  return context;
}
_ZP_EL_Commerce commerce_table = {
    nullptr,
    [](ZPPROGRAM program, void**, const char*, const char*, ZPVARIABLELIST fields, ZPVARIABLEHASH) {
      Work(OfCommerce(program, fields));
      return static_cast<int>(request->input->Byte() % 4 == 0);
    },
    [](ZPPROGRAM program, void**, const char*, const char*, ZPVARIABLELIST fields, ZPVARIABLEHASH,
       int index) {
      Work(OfCommerce(program, fields));
      if (request->input->size() == 0 || index > 5) return 2;
      return static_cast<int>(request->input->Byte() % 3);
    },
    [](ZPPROGRAM program, void**, const char*, const char*, ZPVARIABLELIST fields) {
      WorkToTheEnd(OfCommerce(program, fields));
    },
    [](ZPPROGRAM, void**, const char*, const char*, ZPVARIABLELIST) -> const char* {
      return request->input->Byte() & 1 ? nullptr : "commerce failed";
    }};

int Outcome() {
  return request->input->Byte() % 4 != 0;
}
int OnDatabase(ZPDATABASE database, ZPVARIABLELIST variables = nullptr) {
  Context context;
  context.program = zpDatabase_Program(database);
  context.database = database;
  context.list = variables;
  Work(context);
  return Outcome();
}
int OnView(ZPDATABASEVIEW view) {
  Context context;
  context.program = zpDatabaseView_Program(view);
  context.view = view;
  context.database = zpDatabaseView_Database(view);
  Work(context);
  return Outcome();
}
Context OfField(ZPDATABASEVARIABLE field, bool reads) {
  Context context;
  context.field = field;
  context.view = zpDatabaseVariable_DatabaseView(field);
  context.program = zpDatabaseView_Program(context.view);
  context.database = zpDatabaseView_Database(context.view);
  context.reads = reads;
  return context;
}
int OnField(ZPDATABASEVARIABLE field, bool reads) {
  Work(OfField(field, reads));
  return Outcome();
}
int Begin(ZPDATABASE database) {
  request->views[database].clear();
  zpDatabase_SetData(database, database);
  return OnDatabase(database);
}

_ZP_EL_Database MakeDatabaseTable() {
  _ZP_EL_Database table = {};
  table.version = 6;
  table.create = [](ZPDATABASE d, const char*, int, const char*, int, const char*, int) {
    return Begin(d);
  };
  table.open = [](ZPDATABASE d, const char*, int, const char*, int, const char*, int, const char*,
                  int, const char*, int) { return Begin(d); };
  table.close = [](ZPDATABASE d) {
    request->views[d].clear();
    return OnDatabase(d);
  };
  table.openview = [](ZPDATABASE d, const char*, int, const char*, int, ZPVARIABLELIST variables,
                      int) { return OnDatabase(d, variables); };
  table.runquery = [](ZPDATABASE d, const char*, int, ZPVARIABLELIST variables, int) {
    return OnDatabase(d, variables);
  };
  table.pack = [](ZPDATABASE d) { return OnDatabase(d); };
  table.setprimaryindex = [](ZPDATABASE d, const char*, int) { return OnDatabase(d); };
  table.createindex = [](ZPDATABASE d, ZPPROGRAM, const char*, int, const char*, int, const char*,
                         int) { return OnDatabase(d); };
  table.openindexes = [](ZPDATABASE d, ZPPROGRAM, const char*, int) { return OnDatabase(d); };
  table.reindex = [](ZPDATABASE d) { return OnDatabase(d); };
  table.error = [](ZPDATABASE) -> const char* {
    return request->input->Byte() & 1 ? nullptr : "database failed";
  };
  table.view_close = [](ZPDATABASEVIEW v) {
    std::erase(request->views[zpDatabaseView_Database(v)], v);
    return OnView(v);
  };
  table.view_skip = [](ZPDATABASEVIEW v, int) { return OnView(v); };
  table.view_go = [](ZPDATABASEVIEW v, long) { return OnView(v); };
  table.view_add = table.view_delete = table.view_undelete = table.view_update = OnView;
  table.view_filter = [](ZPDATABASEVIEW v, ZPPROGRAM, const char*, int) { return OnView(v); };
  table.view_find = [](ZPDATABASEVIEW v, const char*, int, int) { return OnView(v); };
  table.view_revealstructure_table = [](ZPDATABASEVIEW v, const char*, int) { return OnView(v); };
  table.view_revealstructure_aggregate = [](ZPDATABASEVIEW v, ZPVARIABLE*) { return OnView(v); };
  table.view_error = [](ZPDATABASEVIEW) -> const char* { return "view failed"; };
  table.variable_get_integer = [](ZPDATABASEVARIABLE f, int* value) {
    *value = static_cast<int8_t>(request->input->Byte());
    return OnField(f, true);
  };
  table.variable_get_double = [](ZPDATABASEVARIABLE f, double* value) {
    *value = request->input->Byte() / 3.0;
    return OnField(f, true);
  };
  table.variable_get_string = [](ZPDATABASEVARIABLE f, char** text, int* length, int* owned) {
    const int result = OnField(f, true);
    if (!result) return 0;
    const std::string bytes = request->input->Bytes(request->input->Byte() % 20);
    *length = static_cast<int>(bytes.size());
    if (request->input->Byte() & 1) {
      *text = static_cast<char*>(zpProgram_Allocate(nullptr, *length));
      bytes.copy(*text, bytes.size());
      *owned = 1;
    } else {
      *text = const_cast<char*>(request->Keep(bytes));
    }
    return result;
  };
  table.variable_set_integer = [](ZPDATABASEVARIABLE f, int) { return OnField(f, false); };
  table.variable_set_double = [](ZPDATABASEVARIABLE f, double) { return OnField(f, false); };
  table.variable_set_string = [](ZPDATABASEVARIABLE f, const char* text, int length) {
    Require(text && length >= 0 && text[length] == '\0');
    return OnField(f, false);
  };
  table.variable_free = [](ZPDATABASEVARIABLE f) {
    Context context = OfField(f, false);
    std::erase(request->fields[context.view], f);
    context.ends = true;
    Work(context);
  };
  table.commit = table.rollback = table.transaction = table.pack;
  table.variable_type = [](ZPDATABASEVARIABLE f) {
    Work(OfField(f, true));
    return static_cast<int>(request->input->Byte() % 5);
  };
  table.command = [](ZPDATABASE d, const char*, int, const char*, int) { return OnDatabase(d); };
  table.free_data = [](ZPDATABASE d, void* data) {
    Require(data != nullptr);
    Context context;
    context.program = zpDatabase_Program(d);
    context.database = d;
    context.ends = true;
    Work(context);
  };
  return table;
}
_ZP_EL_Database database_table = MakeDatabaseTable();

// Every path is the library, which exports all tables; a system library has one function.
class Libraries : public ExternalLibraryManager {
 public:
  ExternalLibrary* Load(const char* path) override {
    if (!*path) return nullptr;
    auto library = std::make_unique<Library>();
    return library->Load(path) ? library.release() : nullptr;
  }

 private:
  class Library : public ExternalLibrary {
   public:
    bool Load(const char* path) override {
      library_path.assign(path, -1);
      return true;
    }
    void* Get_Function(const char* name) override {
      const std::string_view symbol = name;
      if (symbol == "zeph_function_table") return Address(+[] { return &function_table; });
      if (symbol == "zeph_commerce_library") return Address(+[] { return &commerce_table; });
      if (symbol == "zeph_database_library") return Address(+[] { return &database_table; });
      return symbol == "x" ? Address(+[] { return 1; }) : nullptr;
    }

   private:
    template <class Function>
    static void* Address(Function* function) {
      return reinterpret_cast<void*>(function);
    }
  };
};

// --- The host ------------------------------------------------------------------------------------

class Response : public HTTPOutput {
 public:
  Response() : HTTPOutput(64, 4096) {}
  void OutputHeaders() override {
    for (HTTPOutput_Header* h = headers.First(); h; h = headers.Next()) {
      Require(h->namelength >= 0 && h->valuelength >= 0);
    }
  }
  int DoWrite(const char*, int length) override { return length; }
};

class Application : public TestApplication {
 public:
  void Log(unsigned type, LogParameter* parameters) override {
    ZPTIME now;
    zp_gettimevalues(&now);
    LogRecord record(now, processid(), threadid(), Log_Description(type));
    record.Append(this, parameters);
    (void)record.Finish();
  }
};

class Files : public FaultyFileManager {
 public:
  Files() { size_limit = 1 << 18; }
  char* NormalizeContainedPath(Zeph_PathType, const char* path, int* length,
                               int* allocated) override {
    *length = static_cast<int>(strlen(path));
    *allocated = *length + 1;
    char* const copy = new char[static_cast<size_t>(*length) + 1];
    memcpy(copy, path, static_cast<size_t>(*length) + 1);
    return copy;
  }
};

// --- Scripts -------------------------------------------------------------------------------------

const char* const kStatements[] = {
    "call second\nout\n",
    "call second\npopg g\n",
    "pushi 1\npushg g\ncall first\npopg h\n",
    "pushg g\npushg h\ncall first\nout\n",
    "pushg g\ncall f0\npopg h\n",
    "pushc \"a\"\npushc \"x\"\npushd\npopg g\n",
    "pushc \"a\"\npushc \"x\"\npushd\npoprg h\n",
    "pushc \"a\"\npushc \"y\"\npushd\nout\n",
    "pushc \"v\"\npushc \"x\"\npushd\npushi 1\nadd\npopg g\n",
    "pushg g\npushc \"a\"\npushc \"x\"\npopd\n",
    "pushi 5\npushc \"v\"\npushc \"y\"\npopd\n",
    "pushi 7\npushc \"a\"\npushc \"x\"\npushd\npushi 1\nelem\nstore\n",
    "pushi 1\npushg g\npushi 2\nelem\nstore\n",
    "pushc \"t\"\npushg h\npushc \"m\"\nmemb\nstore\n",
    "pushc \"a\"\npushc \"p\"\npushc \"i\"\npushc \"fuzz\"\npushc \"\"\npushc \"\"\ndbopen\n",
    "pushc \"b\"\npushc \"p\"\npushc \"\"\npushc \"fuzz\"\npushc \"\"\npushc \"\"\ndbopen\n",
    "pushc \"c\"\npushc \"p\"\npushc \"fuzz\"\npushc \"x\"\ndbcreate\n",
    "pushc \"a\"\ndbclose\n",
    "pushc \"\"\npushc \"\"\npushi 1\ndbskip\n",
    "pushc \"a\"\npushc \"v\"\npushi -2\ndbgo\n",
    "pushc \"\"\npushc \"\"\npushg g\npushi 1\ndbfind\n",
    "pushc \"a\"\npushc \"\"\ndbadd\n",
    "pushc \"a\"\npushc \"\"\ndbupdate\n",
    "pushc \"a\"\npushc \"v\"\ndbdelete\n",
    "pushc \"\"\npushc \"\"\ndbundelete\n",
    "pushc \"a\"\npushc \"\"\npushc \"f0(1)\"\ndbfilter\n",
    "pushc \"a\"\npushc \"q\"\npushc \"query\"\npushc \"g,h\"\ndbopenview\n",
    "pushc \"a\"\npushc \"v\"\ndbcloseview\n",
    "pushc \"a\"\npushc \"query\"\npushc \"g, a.d.x\"\ndbquery\n",
    "pushc \"a\"\npushc \"c\"\npushc \"d\"\ndbcommand\n",
    "pushc \"a\"\npushc \"\"\npushc \"i\"\ndbsetindex\n",
    "pushc \"a\"\npushc \"v\"\npushc \"i\"\ndbprimary\n",
    "pushc \"a\"\npushc \"\"\npushg g\ndbrevealstructureagg\n",
    "pushc \"a\"\ndbtransaction\npushc \"a\"\ndbcommit\npushc \"a\"\ndbrollback\n",
};

// A loop over the results of a commerce library.
std::string Loop(int number, const std::string& body) {
  const std::string n = std::to_string(number);
  return "pushc \"fuzz\"\npushc \"act\"\npushc \"g,h\"\nop_commerce end" + n + "\nround" + n +
         ":\n" + body + "op_commerce_loop round" + n + "\nend" + n + ":\n";
}

std::string Program(Input* input) {
  std::string code;
  for (int tag = 1; tag <= 58; tag++) code += "tagerror " + std::to_string(tag) + ", 0\n";
  code += "call second\nout\n";
  code += kStatements[14];
  int loops = 0;
  for (unsigned count = input->Byte() % 24; count > 0; count--) {
    const unsigned kind = input->Byte();
    const std::string statement = kStatements[kind % std::size(kStatements)];
    code += kind > 240 ? Loop(++loops, statement) : statement;
  }
  code += "exit\n.function f0(a)\n" + std::string(input->Pick(kStatements)) +
          "pushl a\nret\n.end\n.function f1(a var, b)\n" + input->Pick(kStatements) +
          "pushi 1\npopl a\npushl b\nret\n.end\n";
  return ".function first(a, b var) external\n.function second() external\n.end\n" + code;
}

// --- A run ---------------------------------------------------------------------------------------

// limit is what the script may allocate, in bytes.
void Run(Input* input, long limit, Watchdog* watchdog) {
  const unsigned options = input->Byte();
  Files files;
  files.files["s"] = Assembled(Program(input));
  files.files["f"] = "1,one\n2,two\n";
  Libraries libraries;
  Response response;
  Application application;
  ScriptedPeer peer;
  peer.bytes = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello\nworld\n" + input->Bytes(8);
  ScriptedNetworkManager network(&application, &peer);
  CommerceLibraryManager commerce(&application);
  ExternalDatabaseLibraryManager databases(&application);
  SystemLibraryManager systems(&application);
  application.SetLibraryManager(&libraries);
  application.SetOutput(&response);
  application.SetFileManager(&files);
  application.SetNetworkManager(&network);
  application.SetCommerceManager(&commerce);
  application.SetDatabaseManager(&databases);
  application.SetSystemLibraryManager(&systems);
  commerce.RegisterDSO("fuzz", "library");
  databases.RegisterDSO("fuzz", "library");
  systems.RegisterDSO("x", "library");
  if (options & 1) application.config()->SetValue_Integer(Config_log_level, -1);
  LoadedScript script(&application, &files);
  Require(script.Load("s", files.Open("s", FileMode_Read)));
  script.file.Deactivate();
  ExternalCallManager external(&application);
  Require(external.RegisterDSO("library"));
  ExternalConfig config(&application, &external, &commerce, &databases, &systems, &script.system,
                        &script.globals);
  Request calls(input);
  calls.config = &config;
  request = &calls;
  watchdog->Begin(application.heartbeatcounter(), application.timedoutflag());
  ThreadMemory::SetLimit(limit);
  {
    ZephVM vm("dir/script.zpc", -1, &application, &script.dictionary, &script.system,
              &script.globals, &script.segments, &script.functions, &external, &commerce,
              &databases, &script.languages, &script.pieces, application.heartbeatcounter(),
              application.timedoutflag(), application.exitflag(), nullptr);
    ThreadMemory::SetJudge(IsRefused);
    vm.Go();
    ThreadMemory::SetJudge(nullptr);
  }
  ThreadMemory::SetLimit(0);
  watchdog->End();
  Require(files.open_now <= 1);
  response.Flush(0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Watchdog* const watchdog = new Watchdog;
  Input input(data, size);
  const ThreadMemory::Run run;
  // In some inputs the memory ends in the middle of something, or one block is refused.
  const unsigned memory = input.Byte();
  const long limit = memory % 4 == 0 && memory != 0 ? (1L << 20) + memory * 8192L : kMemory;
  blocks_left = memory % 4 == 1 ? static_cast<long>(input.Word() % 4096) : 0;
  try {
    Run(&input, limit, watchdog);
  } catch (const std::bad_alloc&) {
    // There was no memory for the machine itself.
    ThreadMemory::SetLimit(0);
    ThreadMemory::SetJudge(nullptr);
    watchdog->End();
  }
  Variable::FreeCycles();
  return 0;
}

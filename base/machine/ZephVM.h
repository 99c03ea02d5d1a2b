// The stack machine that runs compiled scripts. Go is its loop; the operand stack is
// base/machine/ZephVM_Stack.h, the frames are base/machine/ZephVM_Frame.h, and the instructions are
// listed once, in base/compiled/Instructions.def. Errors are in base/machine/Error.cpp.

#ifndef ZEPH_BASE_ZEPHVM_H
#define ZEPH_BASE_ZEPHVM_H

#include <climits>
#include <initializer_list>
#include <memory>
#include <vector>

#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/BaseTemplates.h"
#include "base/core/Numbers.h"
#include "base/core/StringClass.h"
#include "base/extensions/ExternalParameters.h"
#include "base/host/RunObserver.h"
#include "base/host/TagErrors.h"
#include "base/machine/Feature.h"
#include "base/machine/ImportFilters.h"
#include "base/machine/LogGate.h"
#include "base/machine/MachineFamily.h"
#include "base/machine/RecentField.h"
#include "base/machine/ZephVM_Frame.h"
#include "base/machine/ZephVM_Stack.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

class Commerce;
class CommerceLibraryManager;
class Dictionary;
class DoContext;
class ExternalCall;
class ExternalCallManager;
class ExternalDatabaseLibraryManager;
class Function;
class FunctionManager;
class FunctionParameter;
class HotCode;
class LocalizedDictionary;
class LocalizedLanguages;
class LogLine;
class MachineClone;
class ZephApplication;
struct HotOp;
struct LogParameter;
struct MachineDatabases;

// Runs one compiled file for one request, on that request's thread. Borrows the tables that it is
// built on, which outlive it; owns its frames, stacks and features.
//
// A failing instruction sets the stop flag and returns, leaving the stack as it is. The loop sees
// the flag before the next instruction, so nothing unwinds.
class ZephVM {
 public:
  // path is the script's name as messages show it; a length of -1 means strlen. heartbeat, timedout
  // and exit point to the integers that the host shares with the machine (ZephApplication); a null
  // one is taken from the parent. functions, externalcalls, languages and localized may be null.
  // REQUIRES: without a parent, none of the three integers is null.
  ZephVM(const char* path, int pathlength, ZephApplication* application, Dictionary* dictionary,
         VariableHash* system, VariableHash* global, SegmentManager* segments,
         FunctionManager* functions, ExternalCallManager* externalcalls,
         CommerceLibraryManager* commerce, ExternalDatabaseLibraryManager* databases,
         LocalizedLanguages* languages, LocalizedDictionary* localized, int* heartbeat,
         int* timedout, int* exit, ZephVM* parent);
  // Copies a machine for a background task, which continues where the source is
  // (base/machine/ZephVM_Clone.cpp). The copy runs for the given application, whose integers are
  // given too. It has copies of everything that the source works on, including the source's
  // parents, but not the source's features. REQUIRES: the source does not run while it is copied.
  ZephVM(ZephApplication* application, ZephVM& source, int* heartbeat, int* timedout, int* exit);
  virtual ~ZephVM();
  ZephVM(const ZephVM&) = delete;
  ZephVM& operator=(const ZephVM&) = delete;

  // Calls a function of an external library: takes its arguments from the stack and pushes its
  // result. Failures are fatal errors.
  virtual void CallExternalFunction(Function* function);
  // Enters a function of the script: takes its arguments from the stack, makes its frame current
  // and continues at its first instruction. The frame is entered even if an argument is refused;
  // only a stack overflow enters none.
  virtual void CallFunction(Function* function);

  // Runs until the script ends. Returns 1 after a normal end or an exit, 0 after an error or a
  // time-out.
  int Go();
  // Notes the heartbeat counter and passes the beat to the parent and to all features, newest
  // first.
  void Heartbeat();

  // --- Runs within a run (base/machine/ZephVM_Calls.cpp) -----------------------------------------
  // Runs the start segment from its beginning on a frame and stack of its own, then continues as
  // before. Returns what Go returns.
  int Go_Recursive();
  // Calls a function of the script from native code. The arguments are borrowed, and there must be
  // as many as the function has parameters; if the list is null, they are already on the stack.
  // result, if not null, receives what the function returned. Returns 1 after the function's end,
  // or after an exit, which leaves result as it is; 0 if there is no such function, the counts
  // differ, or an error has ended the script. A length of -1 means strlen.
  int RunFunction(const char* name, int length, VariableList* arguments, Variable* result);
  // Calls the script's function Zeph_ValidateFileUpload, which decides whether to accept an
  // uploaded file. *answer receives what it returns: the limit in bytes, 0 for no limit, or a
  // negative number to refuse the file. It is -1 if the script has no such function. Returns 1, or
  // 0 if the call failed; an exit in the function is a failure.
  int ValidateFileUpload(const char* field, int fieldlength, const char* name, int namelength,
                         const char* type, int typelength, int* answer);
  // Calls the script's function Zeph_ProcessFileUpload for an uploaded file. status is "COMPLETE"
  // or "PARTIAL", path is the temporary file's and size its length in bytes. Returns 1, also if the
  // script has no such function, or 0 if the call failed, for example by an exit.
  int ProcessFileUpload(const char* field, int fieldlength, const char* name, int namelength,
                        const char* status, int statuslength, const char* path, int pathlength,
                        const char* type, int typelength, int size);

  // --- Expressions and other files (base/machine/ZephVM_Expressions.cpp) -------------------------
  // Compiles an expression into a new segment of this machine. The segment exists as long as the
  // machine, so a caller that evaluates one text often keeps it. Functions are looked up here;
  // external ones also in the caller or, if that is null, in the parent. alias, null or terminated,
  // is the database of fields that name none. sourcefile, which may be null, and line are the place
  // that messages of the expression report. Returns null after a failure, with the message in
  // *error if error is not null. Lengths of -1 mean strlen.
  Segment* Compile_Dynamic_Expression(const char* text, int length, const char* alias,
                                      ZephVM* caller, String* error, const char* sourcefile,
                                      int sourcefilelength, int line);
  // Runs a compiled expression on the given stack; null means the current one. Returns 1, or 0
  // after an error or a time-out. The expression cannot reach the entries that are on the stack. It
  // leaves at most one more: the last, if it has several values; none after a failure. variables is
  // the table that the scope "local" means in the expression, null for the current frame's; bare
  // names are not looked up there. All arguments are borrowed. If the stack belongs to another
  // machine, a stack error is that machine's error and ends both.
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables);
  // The same, but after a success the value is popped, as PopBool, PopS and PopV(Variable**, int*)
  // do; after a failure the results are unchanged. An expression without a value gives false, an
  // empty text or the null variable.
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables, int* result);
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables, const char** text, int* length, int* size,
                                 int* deletable);
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables, Variable** result, int* deletable);
  // Returns the context of another compiled file, and opens it if it is not open. A relative name
  // is resolved in the directory of this machine's script. The context is borrowed and valid until
  // the next call. Returns null after a runtime error. A length of -1 means strlen.
  DoContext* DoContextFind(const char* name, int length);
  // The number of machines that have this one as parent, plus the runs of it that its context has
  // started and that have not ended.
  int Children() const { return children; }
  void AddChild() { children++; }
  void RemoveChild() { children--; }

  // --- Variables by name (base/machine/ZephVM_Lookup.cpp) ----------------------------------------
  // All results are borrowed. A length of -1 means strlen, except for the length of a list.
  //
  // Returns the variable of a name with scope and path, as scripts write it; null if there is none.
  // A bad name is a fatal error and also gives null.
  Variable* Lookup_Variable(const char* name, int length);
  // The same, but a bad name returns 0, with the message in *error. Otherwise returns 1; *out is
  // null if there is no such variable.
  int Lookup_Variable(Variable** out, const char* name, int length, String* error);
  // Returns the global variable of a plain name and creates it if necessary; null if the script's
  // tables do not know the name.
  Variable* Lookup_Global(const char* name, int length);
  // Fills the list with a reference to each variable of a comma-separated list of names. A name
  // without a variable gets a reference to the null variable. Returns the number of references.
  int Lookup_VariableList(VariableList* list, const char* names, int length);
  // Writes a variable as a hidden form field of that name. An aggregate becomes one field for each
  // scalar in it.
  void HideVar(const String& name, Variable* variable);

  // Compare as the instruction cmp does: below 0, 0 or above 0.
  static int Compare(Variable* left, Variable* right) {
    int no_number;
    const double a = left->Read_Compare(&no_number);
    if (no_number) return CompareTexts(left, right);
    const double b = right->Read_Compare(&no_number);
    if (no_number) return CompareTexts(left, right);
    return a == b ? 0 : a < b ? -1 : 1;
  }
  static int Compare(Variable* left, int right) {
    if (left->plain_forms() == Variable::IntegerForm) {
      const int number = left->plain_integer();
      return number == right ? 0 : number < right ? -1 : 1;
    }
    int no_number;
    const double a = left->Read_Compare(&no_number);
    if (no_number) return CompareTexts(left, right);
    return a == right ? 0 : a < right ? -1 : 1;
  }

  // --- Errors (base/machine/Error.cpp) -----------------------------------------------------------
  // Reports that the code or the state of the machine is wrong: sends the message to the client and
  // ends the run. Returns 0.
  int FatalError(const String& message);
  // Reports std::bad_alloc, caught during a run, as a fatal error, and writes a line to standard
  // error for the operator. Returns 0. Throws nothing.
  int OutOfMemory();
  // Reports that a tag of the script has failed. The tag's settings decide whether the message is
  // shown and whether the run ends. The bare message is stored in the tag's error variable.
  void RuntimeError(int tag, const String& message);
  // The same for a message that contains text from outside: it is entity-encoded first.
  void EncodedRuntimeError(int tag, const String& message);
  // Sets the tag's error variable to NULL.
  void ClearErrorVariable(int tag);
  // The text of the last error, prefix included.
  const String& error() const { return error_text; }
  bool stopped() const { return stop_flag; }

  // --- Features ----------------------------------------------------------------------------------
  // Adopts the feature.
  void Push_Feature(Feature* feature) { features.Push(feature); }
  // Returns the newest feature of a Feature::Type, or null.
  Feature* Lookup_Feature(int type) { return features.Lookup(type); }
  // Takes the feature off the stack, together with all above it, and deletes it; null means the
  // top. Those above it are only deleted when the machine ends, and their closing instructions
  // never run.
  void Pop_Feature(Feature* feature);
  // Closes all features of this machine and of its parents, for a library that restarts a task.
  void ResetAsynchronousState();

  // Whether a record of this LogType is to be written at the current place of the script.
  bool WantsLog(unsigned type) { return log_gate.Wants(type) && log_gate.Admits(Place()); }

  // Sets whether frames of finished calls are reused for later calls, which is the default. Scripts
  // cannot observe it; tests compare a machine and its children with and without it.
  void SetFrameReuse(bool reuse) { family->SetFrameReuse(reuse); }

  ZephApplication* Application() { return application; }
  ZephVM_Frame* CurrentFrame() { return frame; }
  // The current frame's serial number, for a feature that is to end with the frame. Few frames need
  // one, so it is assigned by the first call.
  long FrameSerial();
  ZephVM_Stack* CurrentStack() { return stack; }
  VariableHash* SystemVariables() { return system_variables; }
  VariableHash* GlobalVariables() { return global_variables; }
  // What the machines of the family share, borrowed.
  MachineFamily& Family() { return *family; }
  // The databases that the family has open, borrowed.
  MachineDatabases& Databases() { return family->databases(); }
  // The builtin libraries of the run; null if the host has none.
  ExternalCallManager* ExternalCalls() { return external_calls; }
  // The types of databases that the configuration names; null if the host has none.
  ExternalDatabaseLibraryManager* DatabaseLibraries() { return database_libraries; }
  const String& ScriptPath() const { return script_path; }
  // The path up to and including its last separator; empty without one.
  const String& ScriptDirectory() const { return script_directory; }
  int Line() const { return current_line; }
  // Segment and offset of the current instruction, as messages report them.
  int SegmentNumber() const { return loaded_segment; }
  int InstructionStart() const { return instruction_start; }
  // The name of the current source file as the dictionary gives it; empty when there is none.
  const char* SourceFile(int* length);
  TagErrorSetting TagError(int tag) const {
    TagErrorSetting setting = original_tag_default_errorsettings[tag];
    setting.settings = tag_settings[tag];
    return setting;
  }
  // Appends where the script is and the calls that lead there, the innermost first, as in
  // "cart.zeph:17 in total, cart.zeph:40 in show, index.zeph:3". Calls of this machine's parents
  // follow. A name or a line that the code does not say is left out
  // (base/machine/ZephVM_Trace.cpp).
  void WriteCalls(LogLine* line);

 private:
  enum class Pass { Continue, Normal };

  // Go, without the handling of std::bad_alloc.
  int Loop();

  friend class MachineClone;
  friend struct NativeLayout;
  friend struct NativeRun;

  void End();
  void MakeBaseFrame();
  void EndLibraryData();
  void DeleteFrames(ZephVM_Frame* kept);
  void CloneFrames(ZephVM& source);
  std::unique_ptr<ZephVM_Frame> CloneFrame(ZephVM_Frame* original);
  void SetScriptDirectory();
  // Makes a frame the current one. It is that of so many functions: 1 or 0.
  void EnterFrame(ZephVM_Frame* new_frame, int functions_entered = 0) {
    new_frame->serial = 0;
    new_frame->depth = (frame ? frame->depth : 0) + functions_entered;
    frame = new_frame;
    stack = frame->stack;
  }

  // The current place of the script, as the log has it.
  LogPlace Place();
  // Steps of the loop.
  int Set_Segment();
  bool LoadSegment();
  Pass EndOfSegment();
  // Runs decoded code from a record on, until an instruction that Loop has to run.
  void RunHot(const HotCode* hot, const HotOp* op);
  // Runs an instruction by its handler. REQUIRES: it is a HotHandler.
  void RunHandler(int number);
  void HotLoop(const HotCode* hot, const HotOp* op);
  // Writes what the instruction rounds makes of a value, if that can be found quickly, and returns
  // its length; no NUL is written. Returns 0 for other values and writes nothing. REQUIRES: text
  // has room for MostRounded bytes.
  static constexpr int MostRounded = 24;
  static int WriteRounded(double value, int decimals, char* text);
  int TimedOut();
  // Writes a log record of the current place, with the given parameters after those of the place.
  void WriteLog(unsigned type, std::initializer_list<LogParameter> more);
  String ErrorPrefix(const char* kind, const char* tag);
  // Tells the application's observer of an error, before it is shown.
  void Report(RunFailure::Kind kind, bool ends_run, bool shown, const char* text, int length);
  void WritePlace(LogLine* line, const char* file, int file_length, int source_line);
  void WriteFrames(LogLine* line, int* left);
  bool PlaceBefore(int number, int offset, int* file, int* source_line);

  // The target of a jump; from is the offset after its operands. Code that a backward jump repeats
  // may get decoded.
  int Jumped(int from, int distance) {
    if (distance < 0 && segment) segment->NoteRepeat(*dictionary, functions);
    return WrapAdd(from, distance);
  }

  static int CompareTexts(Variable* left, Variable* right);
  static int CompareTexts(Variable* left, int right);

  // Shared by handlers. PopHeld takes a variable off the stack, null after an error, and returns
  // the count that the entry held.
  VariableRef PopHeld(Variable** variable);
  const char* DictionaryText(int id, int* length);
  bool LookupOrFail(Variable** out, const char* name, int length);
  int LookupUnscoped(Variable** out, const char* name, int length, String* error);
  void PushNamed(const char* name, int length);
  void PopNamed(const char* name, int length);
  // The field that the instruction's two constant names mean, or null. With empty_is_first, an
  // empty alias means the first database. Returns false after a fatal error.
  bool ConstantField(Variable** variable, bool empty_is_first) {
    if (recent_fields) {
      const RecentField& recent = recent_fields[RecentPlace()];
      if (recent.alias == first_integer && recent.field == second_integer &&
          recent.views_gone == family->ViewsGone() && recent.fields_gone == *recent.fields_count) {
        *variable = recent.variable;
        return true;
      }
    }
    return FindConstantField(variable, empty_is_first);
  }
  bool FindConstantField(Variable** variable, bool empty_is_first);
  unsigned RecentPlace() const {
    const auto alias = static_cast<unsigned>(first_integer);
    return (alias * 5 + static_cast<unsigned>(second_integer)) % kRecentFields;
  }
  Variable* ViewField(const char* alias, int aliaslength, const char* name, int length);
  Variable* FirstDatabaseField(const char* name, int length);
  Variable* AnyDatabaseField(const char* name, int length);
  void AssignOrDrop(Variable* variable);
  // One of the functions of base/core/string_search.h.
  using Search = int (*)(const char* pattern, int pattern_length, const char* text,
                         int text_length);
  void PushMatch(Search plain, Search fast, bool last_byte);
  void PushElement(int create);
  void PushMember(int create);
  [[gnu::always_inline]] Variable* GlobalOrFail(int position) {
    Variable* variable = global_variables->At(position, 1);
    if (!variable) FatalError("Invalid variable reference");
    return variable;
  }
  // Pushes the variable at a position, created if missing.
  [[gnu::always_inline]] void PushPosition(VariableHash* table, int position) {
    Variable* variable = table->At(position, 1);
    if (variable) {
      stack->PushHeld(variable);
    } else {
      FatalError("Invalid variable reference");
    }
  }

  // Calls. The limit is far above what scripts need, and low enough for the memory of a thread.
  static constexpr int MostFrames = 65536;
  class NestedRun;         // base/machine/NestedRun.h
  class InstructionCheck;  // base/machine/InstructionCheck.h
  ZephVM_FunctionFrame* FrameFor(Function* function);
  void KeepFrame(ZephVM_FunctionFrame* left);
  int SimpleParameters(Function* function, uint64_t* references);
  // Whether calls and returns need no log record. This is the same for the machine's whole run.
  bool ReturnsNeedNoRecord() const;
  static constexpr long NoMode = LONG_MIN;  // no mode: those are ints
  void SetOutputMode(int mode);
  void TakeArguments(Function* function, VariableHash* locals);
  ZephVM_FunctionFrame* ReturningFrame();
  void LeaveFrame();
  void LogReturn(ZephVM_FunctionFrame* left, bool with_value);
  // Closes the features that were made in a frame that is about to end.
  void Cleanup_Function_Features(ZephVM_Frame* left);

  // Calls of libraries (base/machine/ZephVM_External.cpp).
  ExternalCall* FindExternal(Function* function);
  ExternalCall* BindExternal(Function* function);
  bool TakeArguments(ExternalParameters* parameters);
  Variable* TakeArgument(ExternalParameters* parameters, ExternalParameters::Parameter* parameter);
  // CallExternalFunction for a function that was called before, but the result is not pushed: it is
  // returned, borrowed from the library's function until its next call. Returns null after a
  // failure, which has been reported. If text is not null, it is the last argument in place of the
  // entry on top. REQUIRES: IsBound(index); with a text, there is a parameter, the last is by
  // value, and length is 0 or more.
  Variable* CallBoundFunction(int index, const char* text, int length);
  // Whether a call of the function at an index has nothing to find out, and no record to write.
  bool IsBound(int index) const;

  // Whether a run within this one may begin. If not, that is a fatal error.
  bool MayNest();
  // With wants_result, a run that leaves no result has failed; that happens after an exit.
  template <typename Push, typename Take>
  int RunNested(Function* function, bool wants_result, Push push, Take take);

  // Imports (base/machine/ZephVM_Import.cpp).
  struct ImportOperands;
  class ImportLoop;
  void import_filter_resume(int accepted);

  // Calls of URLs (base/network/ZephVM_Call.cpp) and mails (base/network/ZephVM_SMTP.cpp).
  class CallLoop;
  class MailBlock;

  // Mailboxes (base/network/ZephVM_POP3.cpp).
  class MailboxLoop;

  // Whether a table that a feature borrows is still that of a frame, or the global one. A run
  // within a run ends its frames and may leave its features open.
  bool TableExists(const VariableHash* table) const;

  // Loops of commerce libraries (base/machine/ZephVM_Commerce.cpp).
  Commerce* CurrentCommerce();

  // Other files (base/machine/ZephVM_Expressions.cpp) and localized texts
  // (base/machine/ZephVM_Localized.cpp).
  bool Run_Function(DoContext* context, const char* text, int length);
  Segment* FunctionCall(DoContext* context, const char* text, int length);
  void AfterChild(ZephVM* child, int result);
  template <typename Write>
  void WriteLocalized(int token, Write write);

  // The handlers, each named as its instruction, for the rows of the list that have one.
#define ZEPH_DECLARE_InLine(identifier)
#define ZEPH_DECLARE_Handler(identifier) void identifier();
#define ZEPH_DECLARE_HotHandler(identifier) void identifier();
#define ZEPH_DECLARE_Absent(identifier)
#define INSTRUCTION(word, identifier, name, first, second, run, listed, effect) \
  ZEPH_DECLARE_##run(identifier)
#include "base/compiled/Instructions.def"
#undef INSTRUCTION
#undef ZEPH_DECLARE_Absent
#undef ZEPH_DECLARE_HotHandler
#undef ZEPH_DECLARE_Handler
#undef ZEPH_DECLARE_InLine

  // What the machine of a task owns and deletes last; null in any other machine.
  std::unique_ptr<MachineClone> clone;
  int children = 0;
  String error_text;
  int current_line = 0;
  int traced_line = 0;
  int source_file = -1;  // dictionary id; -1 is none
  const char* source_name = nullptr;
  int source_name_length = 0;
  String script_path;
  String script_directory;
  String error_prefix;          // set by op_errmsg
  int tag_settings[tag_count];  // by tag: what its errors do
  // Operands of the current instruction. An instruction without operands leaves them as they are.
  int first_integer = 0;
  int second_integer = 0;
  double first_double = 0.0;
  double second_double = 0.0;
  Segment* segment = nullptr;
  const unsigned char* code = nullptr;
  int code_length = 0;
  ZephVM_Frame* frame = nullptr;
  ZephVM_Stack* stack = nullptr;
  int wanted_segment = 0;
  int program_counter = 0;
  int loaded_segment = 0;
  int instruction_start = 0;
  bool stop_flag = false;
  LogGate log_gate;
  int* heartbeat_counter;
  int* timedout_flag;
  int* exit_flag;
  int last_heartbeat = 0;
  ZephApplication* application;
  Dictionary* dictionary;
  VariableHash* system_variables;
  VariableHash* global_variables;
  SegmentManager* segments;
  FunctionManager* functions;
  ExternalCallManager* external_calls;
  CommerceLibraryManager* commerce_libraries;
  ExternalDatabaseLibraryManager* database_libraries;
  LocalizedLanguages* languages;
  LocalizedDictionary* localized;
  // Parameters of the next localized text; null until one is set.
  std::unique_ptr<VariableHash> text_parameters;
  FeatureStack features;
  ImportFilters import_filters;
  NULLVariable* null_variable;
  ZephVM* parent;
  // The family's data, which the machine without a parent owns; unused in a child.
  MachineFamily own_family;
  MachineFamily* family;  // the parent's, or own_family
  // The machine of the family that currently works on this one's stack, or null.
  ZephVM* guest = nullptr;
  // Frames of finished calls, by function index, with their stack and locals, kept for later calls.
  std::vector<ZephVM_FunctionFrame*> idle_frames;
  // By the ids of the names; null until a field is found.
  static constexpr unsigned kRecentFields = 32;
  std::unique_ptr<RecentField[]> recent_fields;
  // Where the error variables of the tags that were cleared last are in the table of globals. Tags
  // share a place by their lowest bits.
  struct ClearedVariable {
    int tag = -1;          // -1 is none
    int position = -1;     // -1 if the table does not know the name
    unsigned entries = 0;  // of the table at that time
  };
  static constexpr int kClearedVariables = 8;
  ClearedVariable cleared_variables[kClearedVariables];
  IdleParameters idle_parameters;  // the same for external functions
  // The output's mode if the hot loop set it and so knows it, else NoMode.
  long hot_mode = NoMode;
  bool in_hot = false;
  long frame_serials = 0;  // the last serial number given to a frame
};

#endif

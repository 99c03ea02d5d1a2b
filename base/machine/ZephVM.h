// The stack machine that runs compiled scripts. Go is its loop; the operand stack is
// base/machine/ZephVM_Stack.h, the frames are base/machine/ZephVM_Frame.h, and the words of the
// instruction set are listed once, in base/compiled/Instructions.def. Errors are in
// base/machine/Error.cpp.

#ifndef ZEPH_BASE_ZEPHVM_H
#define ZEPH_BASE_ZEPHVM_H

#include <climits>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/BaseTemplates.h"
#include "base/core/Numbers.h"
#include "base/core/StringClass.h"
#include "base/host/TagErrors.h"
#include "base/machine/Feature.h"
#include "base/machine/ZephVM_Frame.h"
#include "base/machine/ZephVM_Stack.h"
#include "base/values/VariableRef.h"

class CommerceLibraryManager;
class Dictionary;
class DoContext;
class DoContexts;
class ExternalCall;
class ExternalCallManager;
class ExternalDatabaseLibraryManager;
class Function;
class FunctionManager;
class FunctionParameter;
class HotCode;
class LocalizedDictionary;
class LocalizedLanguages;
class MachineClone;
class VariableList;
class ZephApplication;
struct HotOp;
struct LogParameter;
struct _ZP_EL_Function;

// One per request, on the request's thread. Borrows the tables that it is built on, which outlive
// it; owns its frames, stacks and features.
//
// A failing instruction sets the stop flag and returns, leaving the stack as it is; the loop sees
// the flag before the next instruction, so nothing unwinds.
class ZephVM {
 public:
  // path names the script, as messages show it; a length of -1 means strlen. heartbeat, timedout
  // and exit point to the integers that the host shares with the machine (ZephApplication); with a
  // parent, null ones are taken from it.
  ZephVM(const char* path, int pathlength, ZephApplication* application, Dictionary* dictionary,
         VariableHash* system, VariableHash* global, SegmentManager* segments,
         FunctionManager* functions, ExternalCallManager* externalcalls,
         CommerceLibraryManager* commerce, ExternalDatabaseLibraryManager* databases,
         LocalizedLanguages* languages, LocalizedDictionary* localized, int* heartbeat,
         int* timedout, int* exit, ZephVM* parent);
  // The copy for a background task, which goes on where the source is
  // (base/machine/ZephVM_Clone.cpp). It belongs to the host, whose integers are given, and works on
  // copies of its own of all that the source works on, parents included; features stay with the
  // source, which stands still meanwhile.
  ZephVM(ZephApplication* application, ZephVM& source, int* heartbeat, int* timedout, int* exit);
  virtual ~ZephVM();
  ZephVM(const ZephVM&) = delete;
  ZephVM& operator=(const ZephVM&) = delete;

  // Calls a function of an external library: takes its arguments from the stack and pushes its
  // result. Failures are fatal errors.
  virtual void CallExternalFunction(Function* function);
  // Enters a function of the script: takes its arguments from the stack, makes its frame current
  // and goes on at its first instruction. The frame is entered even when that has failed.
  virtual void CallFunction(Function* function);

  // Runs until the script ends: 1 after a normal end or an exit, 0 after an error or a time-out.
  int Go();
  // Notes the heartbeat counter and passes the beat to the parent and to all features, newest
  // first.
  void Heartbeat();

  // --- Runs within a run (base/machine/ZephVM_Calls.cpp) -----------------------------------------
  // Runs the start segment from its beginning on a frame and stack of its own, then goes on as
  // before. Answers as Go.
  int Go_Recursive();
  // Calls a function of the script from native code. The arguments are borrowed, and their count
  // has to be that of the parameters; without a list they are on the stack already. The result, if
  // not null, receives what the function returned. 0 if there is no such function, the count is
  // another, or an error has ended the script; 1 after its end, or an exit, which leaves the result
  // as it is. A length of -1 means strlen.
  int RunFunction(const char* name, int length, VariableList* arguments, Variable* result);
  // Asks the script whether to take an uploaded file: what it answers is the limit in bytes, 0 for
  // none and a negative one to refuse, which is also the answer of a script that was not written
  // to be asked. 0 if the call failed; an exit in the function is a failure.
  int ValidateFileUpload(const char* field, int fieldlength, const char* name, int namelength,
                         const char* type, int typelength, int* answer);
  // Hands an uploaded file to the script. status is "COMPLETE" or "PARTIAL", path the temporary
  // file's, size its bytes. 1 also for a script that does not care; 0 if the call failed, by an
  // exit for example.
  int ProcessFileUpload(const char* field, int fieldlength, const char* name, int namelength,
                        const char* status, int statuslength, const char* path, int pathlength,
                        const char* type, int typelength, int size);

  // --- Expressions and other files (base/machine/ZephVM_Expressions.cpp) -------------------------
  // Compiles an expression into a new segment of this machine, which stays for as long as the
  // machine: who evaluates one text often keeps the segment. Functions are looked for here, and
  // external ones also in the caller, or without one in the parent. alias, null or terminated,
  // names the database of fields that name none; sourcefile, which may be null, and line are what
  // messages of the expression name. Null after a failure, with its text in *error, if that is not
  // null. Lengths of -1 mean strlen.
  Segment* Compile_Dynamic_Expression(const char* text, int length, const char* alias,
                                      ZephVM* caller, String* error, const char* sourcefile,
                                      int sourcefilelength, int line);
  // Runs a compiled expression: 1, or 0 after an error or a time-out. It leaves one value at most
  // on the stack, and reaches none of the entries that are there; a null stack is the current one.
  // An expression that leaves several values has the last of them as its own. variables are what
  // the scope "local" means in it, null for those of the current frame; bare names are not looked
  // for there. All are borrowed. On the stack of another machine, what the stack reports is that
  // machine's error, and ends both.
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables);
  // The same, with the value taken from the stack if the run was good, and the results left alone
  // if not: as PopBool, PopS and PopV(Variable**, int*) do. An expression without a value is false,
  // an empty text or the null variable.
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables, int* result);
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables, const char** text, int* length, int* size,
                                 int* deletable);
  int Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                 VariableHash* variables, Variable** result, int* deletable);
  // The context of another compiled file, opened if it has not been. A relative name is one in the
  // directory of this machine's script. Borrowed, and good until the next call. Null after a
  // runtime error. A length of -1 means strlen.
  DoContext* DoContextFind(const char* name, int length);
  // How many machines have this one for a parent, and how many runs of it a context has asked for.
  int Children() const { return children; }
  void AddChild() { children++; }
  void RemoveChild() { children--; }

  // --- Variables by name (base/machine/ZephVM_Lookup.cpp) ----------------------------------------
  // All results are borrowed. A length of -1 means strlen, but for a list.
  //
  // The variable of a name with scope and path, as scripts write it; null if there is none, and
  // after the fatal error that a bad name is.
  Variable* Lookup_Variable(const char* name, int length);
  // The same, but a bad name answers 0 and leaves its text in error. *out may be null with 1, too.
  int Lookup_Variable(Variable** out, const char* name, int length, String* error);
  // The global of a plain name, made if its name is known; null for an unknown name.
  Variable* Lookup_Global(const char* name, int length);
  // Fills the list with a reference to each variable of a comma-separated list of names; a name
  // that is nobody's refers to the null variable. Answers their count.
  int Lookup_VariableList(VariableList* list, const char* names, int length);
  // Writes a variable as a hidden form field of that name, an aggregate as one field for each
  // element below it.
  void HideVar(const String& name, Variable* variable);

  // Compare as the instruction cmp does.
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
  // The code or the state of the machine is wrong: the message goes to the client and the run ends.
  // Answers 0.
  int FatalError(const String& message);
  // The fatal error of whoever has met std::bad_alloc in a run. A line on standard error tells the
  // operator. Answers 0, and lets nothing through.
  int OutOfMemory();
  // A tag of the script has failed: whether the message is shown and the run ends is for the tag's
  // settings to say. The bare message is left in the tag's error variable.
  void RuntimeError(int tag, const String& message);
  // The same for a message with text from outside, which is entity-encoded first.
  void EncodedRuntimeError(int tag, const String& message);
  // Sets the tag's error variable to NULL.
  void ClearErrorVariable(int tag);
  // The text of the last error, prefix included.
  const String& error() const { return error_text; }
  bool stopped() const { return stop_flag; }

  // --- Features ----------------------------------------------------------------------------------
  // Takes the feature over.
  void Push_Feature(Feature* feature) { features.Push(feature); }
  // The newest of a Feature::Type, or null.
  Feature* Lookup_Feature(int type) { return features.Lookup(type); }
  // Takes the feature off the stack, with all above it, and deletes it; null means the top. Those
  // above are kept until the machine ends and deleted then, without running their ends.
  void Pop_Feature(Feature* feature);
  // Closes all features of this machine and those above it, for a library that starts a task anew.
  void ResetAsynchronousState();

  // Whether a record of this LogType is wanted at the current place of the script.
  bool WantsLog(unsigned type) { return (log_mask & type) != 0 && LogAdmitsPlace(); }

  // Whether the frames of calls that are over serve later calls, which is so from the start. No
  // script can tell: tests compare a machine and its children with and without.
  void SetFrameReuse(bool reuse) { root->reuses_frames = reuse; }

  ZephApplication* Application() { return application; }
  ZephVM_Frame* CurrentFrame() { return frame; }
  // The current frame's serial number, for a feature that is to end with the frame. Few frames have
  // one, so it is given when somebody asks.
  long FrameSerial();
  ZephVM_Stack* CurrentStack() { return stack; }
  VariableHash* SystemVariables() { return system_variables; }
  VariableHash* GlobalVariables() { return global_variables; }
  // The builtin libraries of the run; null where the host has none.
  ExternalCallManager* ExternalCalls() { return external_calls; }
  const String& ScriptPath() const { return script_path; }
  // The path up to and including its last separator; empty without one.
  const String& ScriptDirectory() const { return script_directory; }
  int Line() const { return current_line; }
  // Segment and offset of the instruction that runs, as messages report them.
  int SegmentNumber() const { return loaded_segment; }
  int InstructionStart() const { return instruction_start; }
  // The name of the current source file as the dictionary gives it; empty when there is none.
  const char* SourceFile(int* length);
  const TagErrorSetting& TagError(int tag) const { return tag_errors[tag]; }

 private:
  enum class Pass { Continue, Normal };

  // Go, but for the end of the memory.
  int Loop();

  friend class MachineClone;

  void End();
  void MakeBaseFrame();
  void DeleteFrames();
  void CloneFrames(ZephVM& source);
  std::unique_ptr<ZephVM_Frame> CloneFrame(ZephVM_Frame* original);
  void SetScriptDirectory();
  void EnterFrame(ZephVM_Frame* new_frame) {
    new_frame->serial = 0;
    frame = new_frame;
    stack = frame->stack;
  }

  bool LogAdmitsPlace();

  // Steps of the loop.
  int Set_Segment();
  bool LoadSegment();
  Pass EndOfSegment();
  // Runs decoded code from a record on, up to an instruction that is the loop's to do.
  void RunHot(const HotCode* hot, const HotOp* op);
  void HotLoop(const HotCode* hot, const HotOp* op);
  // What rounds makes of a value, where that is found quickly: its length, without a NUL. 0 for
  // other values, and nothing is written.
  static constexpr int MostRounded = 24;
  static int WriteRounded(double value, int decimals, char* text);
  int TimedOut();
  // A record with script path, source file and line, and the given parameters behind them.
  void WriteLog(unsigned type, std::initializer_list<LogParameter> parameters);
  String ErrorPrefix(const char* kind, const char* tag);

  // Where a jump from behind its instruction leads.
  int Jumped(int from, int distance) {
    if (distance < 0 && segment) segment->NoteRepeat(*dictionary, functions);
    return WrapAdd(from, distance);
  }

  static int CompareTexts(Variable* left, Variable* right);
  static int CompareTexts(Variable* left, int right);

  // What handlers share. PopHeld takes a variable off the stack, null after an error, with the
  // count that the entry held.
  VariableRef PopHeld(Variable** variable);
  const char* DictionaryText(int id, int* length);
  bool LookupOrFail(Variable** out, const char* name, int length);
  int LookupUnscoped(Variable** out, const char* name, int length, String* error);
  void PushNamed(const char* name, int length);
  void PopNamed(const char* name, int length);
  Variable* ViewField(const char* alias, int aliaslength, const char* name, int length);
  Variable* FirstDatabaseField(const char* name, int length);
  Variable* AnyDatabaseField(const char* name, int length);
  void AssignOrDrop(Variable* variable);
  // One of the forms of base/core/string_search.h.
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

  // Calls. There may be far more activations than a script needs, and few enough for the memory of
  // a thread.
  static constexpr int MostFrames = 65536;
  class NestedRun;  // base/machine/NestedRun.h
  ZephVM_FunctionFrame* FrameFor(Function* function);
  void KeepFrame(ZephVM_FunctionFrame* left);
  int SimpleParameters(Function* function);
  // All of the machine's run is logged, or none of it.
  bool ReturnsNeedNoRecord() const;
  static constexpr long NoMode = LONG_MIN;  // none of the modes, which are of any int
  void SetOutputMode(int mode);
  void TakeArguments(Function* function, VariableHash* locals);
  void LogParameterOf(Function* function, FunctionParameter* parameter, Variable* value);
  ZephVM_FunctionFrame* ReturningFrame();
  void LeaveFrame();
  void LogReturn(ZephVM_FunctionFrame* left, bool with_value);
  // Closes the features that were made in a frame which is about to end.
  void Cleanup_Function_Features(ZephVM_Frame* left);
  ExternalCall* FindExternal(Function* function);
  bool TakeExternalArguments(Function* function, const _ZP_EL_Function* row, VariableHash* locals);
  bool MayNest();
  // wants_result: without one, after an exit that is, the run has failed.
  template <typename Push, typename Take>
  int RunNested(Function* function, bool wants_result, Push push, Take take);

  // Imports (base/machine/ZephVM_Import.cpp).
  struct ImportOperands;
  struct ImportFilter {
    Segment* segment = nullptr;  // the code; null for a text that is no expression
    String error;                // what is wrong with it then
  };
  void BeginImport(ImportOperands* operands, Segment* filter);
  Segment* FilterSegment(const char* text, int length, String* error);
  void RunFilter(Segment* filter, int body, int behind);
  void LeaveFilter(int to_segment, int to_offset);
  void import_filter_resume(int accepted);

  // Handlers, each named as its instruction: base/machine/ZephVM.cpp
  void pushc();
  void out();
  void out_comp();
  void exit();
  void lineno();
  void sourcefile();
  void tagerror();
  void stdoutput();
  void op_errmsg();
  void capture();
  void capture_end();
  void lockfile();
  void lockfile_end();
  // base/machine/ZephVM_Variables.cpp
  void pushs();
  void pops();
  void pushn();
  void pushnc();
  void popn();
  void popnc();
  void pushd();
  void pushdc();
  void popd();
  void popdc();
  void store();
  void refer();
  void poprn();
  void poprnc();
  void poprg();
  void poprl();
  void spush();
  void spop();
  void elem();
  void elem_readonly();
  void memb();
  void memb_readonly();
  void cmpgg();
  void modgg();
  // base/machine/ZephVM_Arithmetic.cpp
  void pow();
  void rounds();
  void roundf();
  void op_bitand();
  void op_bitor();
  void bitxor();
  void bitoc();
  void bitsl();
  void bitsr();
  void op_and();
  void op_or();
  void op_not();
  void isnull();
  void in();
  void cin();
  void ein();
  void ecin();
  void crypt();
  // base/machine/ZephVM_Calls.cpp, base/machine/ZephVM_Lookup.cpp
  void call();
  void ret();
  void retn();
  void hide();
  // base/machine/ZephVM_Import.cpp
  void import();
  void importf();
  void import_loop();
  void import_stop();
  void op_export();
  // base/machine/ZephVM_Expressions.cpp
  void op_do_file();
  void op_do_function();
  bool Run_Function(DoContext* context, const char* text, int length);
  Segment* FunctionCall(DoContext* context, const char* text, int length);
  void AfterChild(ZephVM* child, int result);
  // base/machine/ZephVM_Localized.cpp
  void poplvnc();
  void localize();
  void localizev();
  template <typename Write>
  void WriteLocalized(int token, Write write);

  // base/machine/ZephVM_Clone.cpp
  void async();

  // What a task's machine owns, and deletes last; null in any other.
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
  String error_prefix;  // set by op_errmsg
  TagErrorSetting tag_errors[tag_count];
  // Operands of the current instruction. One keeps its value when the next instruction has none.
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
  unsigned log_mask = 0;
  int* heartbeat_counter;
  int* timed_out;
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
  // Of the next localized text; null until one is set.
  std::unique_ptr<VariableHash> text_parameters;
  FeatureStack features;
  // Compiled once, by text: a loop may open its import again and again.
  std::map<std::string, ImportFilter, std::less<>> import_filters;
  NULLVariable* null_variable;
  ZephVM* parent;
  // --- Of the family: a machine, its children, and theirs ----------------------------------------
  ZephVM* root;                          // the machine that has no parent
  std::unique_ptr<DoContexts> contexts;  // the root's; null until a script names another file
  int runs = 0;                          // that are nested in one another; the root's
  bool reuses_frames = true;             // the root's
  // The machine that works on this one's stack.
  ZephVM* guest = nullptr;
  // -----------------------------------------------------------------------------------------------
  int frame_count = 0;  // of functions that have not returned
  // Frames of calls that are over, by function, with their stack and locals, for the next calls.
  std::vector<ZephVM_FunctionFrame*> idle_frames;
  // The mode that the output has, where that is certain: since the hot loop set it.
  long hot_mode = NoMode;
  bool in_hot = false;
  long frame_serials = 0;  // the last serial number given to a frame
};

#endif

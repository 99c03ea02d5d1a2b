// The stack machine that runs compiled scripts. Go is its loop; the operand stack is
// base/ZephVM_Stack.h, the frames are base/ZephVM_Frame.h, and the words of the instruction set are
// listed once, in base/Instructions.def. Errors are in base/Error.cpp.

#ifndef ZEPH_BASE_ZEPHVM_H
#define ZEPH_BASE_ZEPHVM_H

#include <memory>

#include "base/BaseTemplates.h"
#include "base/StringClass.h"
#include "base/TagErrors.h"
#include "base/ZephVM_Frame.h"
#include "base/ZephVM_Stack.h"

class CommerceLibraryManager;
class Dictionary;
class ExternalCallManager;
class ExternalDatabaseLibraryManager;
class Feature;
class FunctionManager;
class LocalizedDictionary;
class LocalizedLanguages;
class NULLVariable;
class Segment;
class SegmentManager;
class Variable;
class VariableHash;
class ZephApplication;
struct LogParameter;

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
  virtual ~ZephVM();
  ZephVM(const ZephVM&) = delete;
  ZephVM& operator=(const ZephVM&) = delete;

  // Runs until the script ends: 1 after a normal end or an exit, 0 after an error or a time-out.
  int Go();
  // Notes the heartbeat counter and passes the beat to the parent and to all features, newest
  // first.
  void Heartbeat();

  // --- Errors (base/Error.cpp) -------------------------------------------------------------------
  // The code or the state of the machine is wrong: the message goes to the client and the run ends.
  // Answers 0.
  int FatalError(const String& message);
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
  void Push_Feature(Feature* feature);
  // The newest of a Feature::Type, or null.
  Feature* Lookup_Feature(int type);
  // Takes the feature off the stack, with all above it, and deletes it; null means the top. Those
  // above are kept until the machine ends and deleted then, without running their ends.
  void Pop_Feature(Feature* feature);

  // Whether a record of this LogType is wanted at the current place of the script.
  bool WantsLog(unsigned type);

  ZephApplication* Application() { return application; }
  ZephVM_Frame* CurrentFrame() { return frame; }
  ZephVM_Stack* CurrentStack() { return stack; }
  VariableHash* SystemVariables() { return system_variables; }
  VariableHash* GlobalVariables() { return global_variables; }
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

  void MakeBaseFrame();
  void SetScriptDirectory();
  void EnterFrame(ZephVM_Frame* new_frame);

  void Drop(Feature* feature);

  // Steps of the loop.
  bool SetSegment();
  Pass EndOfSegment();
  int TimedOut();
  void Dispatch(unsigned word);
  void WriteLog(unsigned type, const char* name, const String* message);
  String ErrorPrefix(const char* kind, const char* tag);

  // Handlers, each named as its instruction.
  void pushc();
  void pushs();
  void pushg();
  void pushl();
  void pops();
  void popg();
  void popl();
  void out();
  void out_comp();
  void exit();
  void lineno();
  void sourcefile();
  void tagerror();
  void erroutput();
  void stdoutput();
  void op_errmsg();
  void capture();
  void capture_end();

  int children = 0;  // machines that share this one's tables
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
  Stack<Feature> features;
  // Features that were taken off under another one: no beats, no ends, deleted with the machine.
  List<Feature> dropped_features;
  NULLVariable* null_variable;
  ZephVM* parent;
  long frame_serials = 0;  // the last serial numbers given to a frame and to a feature
  long feature_serials = 0;
};

#endif

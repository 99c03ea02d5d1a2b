// The settings of the trace log and the parts of it that a client can set: a filter, the cookies of
// a request, the cookie that the setting requires, and a text that is logged, separated by NUL
// bytes. For any input a filter means what its entries say, and a record is one line.

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/core/Output.h"
#include "base/extensions/ExternalCall.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "base/systems/unix/UNIXApplication.h"
#include "base/values/LogRecord.h"
#include "tests/support/RecordingOutput.h"

namespace {

class Application : public UNIXApplication {
 public:
  Application() : UNIXApplication(0, nullptr, 0, nullptr, nullptr) { configuration = new Config; }
  using UNIXApplication::ProcessLogCookie;
  void SetCookies(const std::string& text) { cookie.reset(zeph_strdup(text.c_str())); }
};

[[noreturn]] void Wrong(const char* what) {
  fprintf(stderr, "%s\n", what);
  abort();
}

// The list in the form of the setting.
std::string Written(List<LogFilterEntry>* entries, const char* mark) {
  std::string text;
  for (LogFilterEntry* e = entries->First(); e; e = entries->Next()) {
    const std::string_view name(e->name, static_cast<size_t>(e->namelength));
    if (name.empty()) Wrong("an entry without a name");
    if (name.find_first_of(" \t\n\v\f\r,:") != std::string_view::npos) Wrong("a name goes on");
    text += mark + std::string(name) + ":" + std::to_string(static_cast<unsigned>(e->firstline)) +
            "-" + std::to_string(static_cast<unsigned>(e->lastline)) + ",";
  }
  return text;
}

bool Admits(const LogFilterEntry* e, const std::string& file, int line) {
  return file == std::string(e->name, static_cast<size_t>(e->namelength)) &&
         (e->firstline == 0 || e->firstline <= line) && (e->lastline == 0 || e->lastline >= line);
}

bool Wanted(Application* application, const std::string& file, int line) {
  List<LogFilterEntry>* excludes = application->logexcludes();
  for (LogFilterEntry* e = excludes->First(); e; e = excludes->Next()) {
    if (Admits(e, file, line)) return false;
  }
  List<LogFilterEntry>* includes = application->logincludes();
  if (includes->Entries() == 0) return true;
  for (LogFilterEntry* e = includes->First(); e; e = includes->Next()) {
    if (Admits(e, file, line)) return true;
  }
  return false;
}

// Compares with a machine that is at that line of the file.
void CompareWithMachine(Application* application, const std::string& file, int line) {
  RecordingOutput output;
  application->SetOutput(&output);
  application->config()->SetValue_Integer(Config_log_level, Log_FatalError);
  Dictionary dictionary;
  SystemVariableHash system(&dictionary, 12, 512);
  VariableHash globals(&dictionary, 12, 512);
  SegmentManager segments;
  FunctionManager functions(&dictionary, 8);
  ExternalCallManager external(application);
  const int name = dictionary.Entry_Add(file.data(), static_cast<int>(file.size()));
  Segment* code = segments.Start();
  int end = code->Write_Word(0, Instruction::sourcefile);
  end = code->Write_Dword(end, static_cast<unsigned>(name));
  end = code->Write_Word(end, Instruction::lineno);
  code->Write_Dword(end, static_cast<unsigned>(line));
  {
    ZephVM vm("page.zpc", -1, application, &dictionary, &system, &globals, &segments, &functions,
              &external, nullptr, nullptr, nullptr, nullptr, application->heartbeatcounter(),
              application->timedoutflag(), application->exitflag(), nullptr);
    if (!vm.Go()) Wrong("the machine has failed");
    if (vm.WantsLog(Log_FatalError) != Wanted(application, file, line)) Wrong("another filter");
  }
  application->SetOutput(nullptr);
}

void CheckFilter(Application* application, const std::string& filter) {
  application->ParseLogFilter(filter.c_str());
  const std::string includes = Written(application->logincludes(), "");
  const std::string excludes = Written(application->logexcludes(), "!");
  const std::string file = filter.substr(0, filter.find_first_of(" \t\n\v\f\r,:-"));
  for (int line : {0, 1, 9, 10, 2147483647}) CompareWithMachine(application, file, line);
  application->ParseLogFilter((" \t" + includes + " , " + excludes + "\n").c_str());
  if (Written(application->logincludes(), "") != includes) Wrong("other entries to include");
  if (Written(application->logexcludes(), "!") != excludes) Wrong("other entries to exclude");
}

void CheckCookie(Application* application, const std::string& cookies, const std::string& wanted) {
  application->SetCookies(cookies);
  application->ProcessLogCookie(wanted.c_str());
  const size_t found = cookies.find("zephlogcookie=");
  bool shown = found != std::string::npos;
  if (shown) {
    const std::string rest = cookies.substr(found + strlen("zephlogcookie="));
    shown = rest.substr(0, rest.find(';')) == wanted;
  }
  if (application->logsuppressed() == shown) Wrong("another cookie");
}

void CheckRecord(Application* application, const std::string& text) {
  ZPTIME now;
  zp_gettimevalues(&now);
  LogRecord record(now, 1, 2, "Trace");
  const LogParameter parameters[] = {
      LogParameter::OfText(text.data(), static_cast<int>(text.size())), LogParameter::OfEnd()};
  record.Append(application, parameters);
  const std::string& line = record.Finish();
  int tabs = 0;
  for (size_t i = 0; i + 1 < line.size(); i++) {
    tabs += line[i] == '\t';
    if (static_cast<unsigned char>(line[i]) < 32 && line[i] != '\t') Wrong("a broken line");
  }
  if (tabs != 3 || line.back() != '\n') Wrong("a record of other fields");
}

std::string TakePart(std::string_view* rest) {
  const size_t end = rest->find('\0');
  std::string part(rest->substr(0, end));
  rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + 1);
  return part;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  Application application;
  const std::string filter = TakePart(&rest);
  CheckFilter(&application, filter);
  const std::string cookies = TakePart(&rest);
  const std::string wanted = TakePart(&rest);
  CheckCookie(&application, cookies, wanted);
  CheckRecord(&application, std::string(rest));
  return 0;
}

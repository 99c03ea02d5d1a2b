// Applies the log's filters and writes records of the trace log. Tested in
// tests/base/machine/LogGateTest.cpp and InstructionsErrorsTest.cpp.

#include "base/machine/LogGate.h"

#include <cstring>
#include <vector>

#include "base/host/ZephApplication.h"

namespace {

// A line bound of 0 admits every line.
bool Names(const LogFilterEntry* entry, const LogPlace& place) {
  return entry->namelength == place.file_length &&
         (entry->firstline == 0 || entry->firstline <= place.line) &&
         (entry->lastline == 0 || entry->lastline >= place.line) &&
         memcmp(entry->name, place.file, static_cast<size_t>(place.file_length)) == 0;
}

bool AnyNames(List<LogFilterEntry>* entries, const LogPlace& place) {
  for (LogFilterEntry* entry = entries->First(); entry; entry = entries->Next()) {
    if (Names(entry, place)) return true;
  }
  return false;
}

}  // namespace

bool LogGate::Admits(const LogPlace& place) const {
  if (application->logsuppressed()) return false;
  if (AnyNames(application->logexcludes(), place)) return false;
  List<LogFilterEntry>* includes = application->logincludes();
  return includes->Entries() == 0 || AnyNames(includes, place);
}

void LogGate::Write(unsigned type, const LogPlace& place,
                    std::initializer_list<LogParameter> more) const {
  std::vector<LogParameter> parameters = {
      LogParameter::OfText(place.script.data, place.script.length),
      LogParameter::OfText(place.file, place.file_length), LogParameter::OfInteger(place.line)};
  parameters.insert(parameters.end(), more);
  parameters.push_back(LogParameter::OfEnd());
  application->Log(type, parameters.data());
}

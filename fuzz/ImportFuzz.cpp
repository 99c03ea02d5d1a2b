// Delimited text files: for any content and any cut into blocks, the reader finds the records and
// fields that a slow and short model finds. Records that are exported can be imported again.

#include <cstdlib>
#include <string>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/host/Config.h"
#include "base/machine/Import.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "fuzz/Require.h"
#include "tests/support/DelimitedModel.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"

namespace {

using Record = std::vector<std::string>;

const int kFields = 3;

std::string Text(Variable* variable) {
  const String& value = variable->value();
  return value.data ? std::string(value.data, static_cast<size_t>(value.length)) : "";
}

std::vector<Record> Model(const std::string& content, const std::string& delimiter) {
  return DelimitedRecords(content, delimiter, kFields);
}

// A machine without code, which imports need for their variables.
class Reader {
 public:
  explicit Reader(int buffer, int most) {
    application.SetFileManager(&files);
    application.config()->SetValue_Integer(Config_bufsz_import, buffer);
    files.read_limit = most;
    for (const char* name : {"a", "b", "c", "recno"}) globals.Insert(name, -1);
    vm = std::make_unique<ZephVM>("s", -1, &application, &dictionary, &system, &globals, &segments,
                                  &functions, nullptr, nullptr, nullptr, &languages, &pieces,
                                  application.heartbeatcounter(), application.timedoutflag(),
                                  application.exitflag(), nullptr);
  }

  std::vector<Record> Read(const std::string& content, const std::string& delimiter) {
    files.files["f"] = content;
    Import import(&application, vm.get());
    int deletable = 0;
    import.SetDelimiter(delimiter.data(), static_cast<int>(delimiter.size()), &deletable);
    import.SetFields("a,b,c", 5);
    Require(import.Start("f", 1, 2, &deletable));
    std::vector<Record> all;
    while (import.Next() == 0) {
      Record fields;
      for (const char* name : {"a", "b", "c"}) fields.push_back(Text(vm->Lookup_Global(name, -1)));
      all.push_back(fields);
      Require(vm->Lookup_Global("recno", -1)->value_integer() == static_cast<int>(all.size()));
    }
    return all;
  }

 private:
  TestApplication application;
  FaultyFileManager files;
  Dictionary dictionary;
  SystemVariableHash system{&dictionary, 4, 8};
  VariableHash globals{&dictionary, 4, 8};
  SegmentManager segments;
  FunctionManager functions{&dictionary, 4};
  TaggedFile script{&files};
  LocalizedLanguages languages{&application, &dictionary, &script, 4, 8};
  LocalizedDictionary pieces;
  std::unique_ptr<ZephVM> vm;
};

}  // namespace

// The first bytes are the size of the buffer, the most bytes that a read returns, the delimiter's
// length, and the delimiter.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const int buffer = static_cast<int8_t>(data[0]);
  const int most = data[1] % 40;
  const std::string rest(reinterpret_cast<const char*>(data) + 3, size - 3);
  const std::string delimiter = rest.substr(0, data[2] % 6);
  const std::string content = rest.substr(delimiter.size());
  Reader reader(buffer, most);
  const std::vector<Record> expected = Model(content, delimiter);
  Require(reader.Read(content, delimiter) == expected);
  std::string written;
  for (const Record& record : expected) {
    ExportRecord line;
    for (int i = 0; i < kFields; i++) {
      const std::string& field = record[static_cast<size_t>(i)];
      if (i > 0) line.AppendPlain(delimiter.data(), static_cast<int>(delimiter.size()));
      line.AppendField(field.data(), static_cast<int>(field.size()));
    }
    line.AppendPlain("\n", 1);
    Require(line.whole());
    written.append(line.data(), static_cast<size_t>(line.length()));
  }
  // The delimiter is written unescaped, so one that contains a special byte gives other records.
  if (delimiter.find_first_of("\n\r\\") == std::string::npos) {
    std::vector<Record> again = reader.Read(written, delimiter);
    Require(again.size() == expected.size());
    if (delimiter.size() == 1) Require(again == expected);
  }
  Require(reader.Read(written, delimiter) == Model(written, delimiter));
  Variable::FreeCycles();
  return 0;
}

// Scripts that work on databases in files of a test's directory, as program text.

#ifndef ZEPH_TESTS_SUPPORT_DATABASEMACHINE_H
#define ZEPH_TESTS_SUPPORT_DATABASEMACHINE_H

#include <initializer_list>
#include <memory>
#include <string>

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/Machine.h"
#include "tests/support/TemporaryDirectory.h"

// A machine whose data directory is a real one.
class DatabaseMachine {
 public:
  explicit DatabaseMachine(const TemporaryDirectory& directory) {
    EXPECT_TRUE(manager.InitializeDataDirectory(directory.path().c_str()));
    machine.application.SetFileManager(&manager);
  }
  ~DatabaseMachine() {
    // The databases that are still open need the file manager.
    machine.Close();
  }

  // Runs program text to its end; the stack must then be empty. Once for each object.
  void Run(const std::string& code) {
    machine.Assemble(code);
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
    EXPECT_EQ(machine.StackText(), "");
  }
  std::string Output() const { return machine.Output(); }
  std::string Value(const char* name) { return machine.Value(name); }

  Machine machine;
  UNIXReentrantFileManager manager{&machine.application};
};

// --- Program text --------------------------------------------------------------------------------

inline std::string Push(const std::string& text) {
  std::string quoted;
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    if (c == '\t') {
      quoted += "\\t";
    } else if (c == '\n') {
      quoted += "\\n";
    } else {
      quoted += c;
    }
  }
  return "pushc \"" + quoted + "\"\n";
}
inline std::string Push(int number) {
  return "pushi " + std::to_string(number) + "\n";
}
// An instruction with texts as its operands, the lowest first.
inline std::string Op(const std::string& name, std::initializer_list<std::string> operands) {
  std::string code;
  for (const std::string& operand : operands) code += Push(operand);
  return code + name + "\n";
}
inline std::string OpenDatabase(const std::string& name, const std::string& path,
                                const std::string& indexes = "", const std::string& type = "") {
  return Op("dbopen", {name, path, indexes, type, "", ""});
}
inline std::string CreateDatabase(const std::string& name, const std::string& path,
                                  const std::string& fields, const std::string& type = "") {
  return Op("dbcreate", {name, path, type, fields});
}
inline std::string Skip(const std::string& database, int count) {
  return Push(database) + Push("") + Push(count) + "dbskip\n";
}
inline std::string Go(const std::string& database, int record) {
  return Push(database) + Push("") + Push(record) + "dbgo\n";
}
inline std::string Find(const std::string& database, const std::string& key, int exact = 1) {
  return Push(database) + Push("") + Push(key) + Push(exact) + "dbfind\n";
}
// An instruction on a view: dbadd, dbupdate, dbdelete, dbundelete.
inline std::string OnView(const std::string& instruction, const std::string& database) {
  return Op(instruction, {database, ""});
}
inline std::string SetField(const std::string& database, const std::string& field,
                            const std::string& value) {
  return Push(value) + Op("popd", {database, field});
}
// Writes a field and a bar.
inline std::string Show(const std::string& database, const std::string& field) {
  return Op("pushd", {database, field}) + "out\n" + Push("|") + "out\n";
}
// Writes a global variable and a bar.
inline std::string ShowGlobal(const std::string& name) {
  return "pushg " + name + "\nout\n" + Push("|") + "out\n";
}

#endif

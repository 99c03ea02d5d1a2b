// A machine with files in memory, for forms that upload: it shows the calls of the script's
// functions, and the content of the temporary files when they were deleted.

#ifndef ZEPH_TESTS_SUPPORT_UPLOADMACHINE_H
#define ZEPH_TESTS_SUPPORT_UPLOADMACHINE_H

#include <memory>
#include <string>

#include "base/request/MultipartFormParser.h"
#include "tests/support/FormBodies.h"
#include "tests/support/Machine.h"
#include "tools/MemoryFile.h"

// Temporary files in memory. They can fail.
class UploadFiles : public MemoryFileManager {
 public:
  // The n-th write from now on fails, 1 being the next; 0 means none.
  int fail_write = 0;
  // A write takes no more than that many bytes; 0 means no limit.
  int write_limit = 0;
  bool fail_temporary = false;
  // "path mode" of each call, and the content of each file at its deletion.
  std::string made, deleted;
  int open_now = 0;

  using MemoryFileManager::Delete;
  using MemoryFileManager::MakeTemporary;
  bool Delete(Zeph_PathType type, const char* path) override {
    EXPECT_EQ(type, ZephPath_Data);
    EXPECT_EQ(open_now, 0);
    deleted += "[" + files[path] + "]";
    return MemoryFileManager::Delete(type, path);
  }
  File* MakeTemporary(Zeph_PathType type, const char* directory, const char* prefix, char** name,
                      int mode) override {
    EXPECT_EQ(type, ZephPath_Data);
    EXPECT_STREQ(directory, "");
    if (fail_temporary) {
      Error("Injected failure");
      return nullptr;
    }
    const std::string path = std::string(prefix) + "." + std::to_string(count++);
    made += path + " " + std::to_string(mode) + ";";
    std::unique_ptr<char[]> text(OwnedText(path));
    File* file = new Temporary(this, path.c_str(), &files[path]);
    *name = text.release();
    return file;
  }

 private:
  class Temporary : public MemoryFile {
   public:
    Temporary(UploadFiles* manager, const char* path, std::string* content)
        : MemoryFile(manager, path, content), owner(manager) {
      owner->open_now++;
    }
    ~Temporary() override { owner->open_now--; }
    int Write(const char* text, int length) override {
      if (owner->fail_write > 0 && --owner->fail_write == 0) {
        Error("Disk on fire");
        return -1;
      }
      if (owner->write_limit > 0) length = std::min(length, owner->write_limit);
      return MemoryFile::Write(text, length);
    }

   private:
    UploadFiles* owner;
  };

  int count = 0;
};

// The calls on the clock of uploads: G resets the script's, R and C reset and clear the upload's.
class UploadApplication : public MachineApplication {
 public:
  void ResetGlobalTimeout() override { calls += 'G'; }
  void ResetPOSTTimeout() override { calls += 'R'; }
  void ClearPOSTTimeout() override { calls += 'C'; }
  std::string calls;
};

// Program text of the two functions. Each shows its arguments; the validating one returns a limit.
inline std::string ValidatesWith(const std::string& limit) {
  return ".function Zeph_ValidateFileUpload(field, name, type)\npushc \"ask(\"\nout\npushl field\n"
         "out\npushc \"|\"\nout\npushl name\nout\npushc \"|\"\nout\npushl type\nout\npushc \")\"\n"
         "out\npushi " +
         limit + "\nret\n.end\n";
}
inline std::string Processes() {
  std::string source =
      ".function Zeph_ProcessFileUpload(field, name, status, path, type, size)\npushc \"file(\"\n"
      "out\n";
  for (const char* name : {"field", "name", "status", "path", "type", "size"}) {
    source += std::string("pushl ") + name + "\nout\npushc \"" +
              (name == std::string("size") ? ")" : "|") + "\"\nout\n";
  }
  return source + "retn\n.end\n";
}

struct Upload {
  std::string content_type = "multipart/form-data; boundary=B";
  std::string script;  // program text
  int limit = 0;       // of plain fields
  bool fail_temporary = false;
  int fail_write = 0;
  int write_limit = 0;

  // Passes a body to a new parser. The returned text has these parts, each only if it is not empty:
  // the variables, the script's output, the files at their deletion, files that were left, and the
  // failure.
  std::string operator()(const Blocks& blocks) const {
    Machine machine;
    if (!script.empty()) machine.Assemble(script);
    UploadFiles files;
    files.fail_temporary = fail_temporary;
    files.fail_write = fail_write;
    files.write_limit = write_limit;
    std::string failure;
    {
      MultipartFormParser parser(&machine.vm(), &files, &machine.global, content_type.c_str(),
                                 limit);
      failure = Feed(parser, blocks);
    }
    EXPECT_EQ(files.open_now, 0);
    std::string text = Contents(machine.global) + machine.Output() + files.deleted;
    for (const auto& [name, content] : files.files) text += "left " + name + ":" + content + ";";
    return text + (failure.empty() ? "" : "{" + failure.substr(8) + "}");
  }
};

// Parts of a body, with the boundary "B".
inline std::string Field(const std::string& name, const std::string& value) {
  return "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}
inline std::string FilePart(const std::string& name, const std::string& file_name,
                            const std::string& type, const std::string& content) {
  return "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"" + file_name +
         "\"\r\nContent-Type: " + type + "\r\n\r\n" + content + "\r\n";
}
inline std::string EndOfBody() {
  return "--B--\r\n";
}

#endif

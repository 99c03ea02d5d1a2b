// Forms in parts, with files: any body gives the same fields, files and calls, for any cut into
// blocks. The script's functions choose their result by the name of the file.

#include "base/extensions/ExternalCall.h"
#include "base/host/BufferedOutput.h"
#include "base/machine/ZephVM.h"
#include "base/request/MultipartFormParser.h"
#include "fuzz/FormText.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/TestApplication.h"
#include "tools/Assembler.h"
#include "tools/MemoryFile.h"

namespace {

// Most files have no limit. A file named "refuse" is refused; "fail" and "exit" end the script.
const char script_text[] = R"(
        exit
        .function Zeph_ValidateFileUpload(field, name, type)
        pushc "?"
        out
        pushl field
        out
        pushc "|"
        out
        pushl name
        out
        pushc "|"
        out
        pushl type
        out
        pushl name
        pushc "fail"
        eq
        jmp_eq good
        pop
        pop
good:   pushl name
        pushc "exit"
        eq
        jmp_eq go_on
        exit
go_on:  pushl name
        pushc "refuse"
        eq
        jmp_eq accept
        pushi -1
        ret
accept: pushi 0
        ret
        .end
        .function Zeph_ProcessFileUpload(field, name, status, path, type, size)
        pushc "!"
        out
        pushl status
        out
        pushl size
        out
        retn
        .end
)";

const std::string& Image() {
  static const std::string image = [] {
    std::string bytes, errors;
    Require(AssembleScript(script_text, "fuzz.zpa", &bytes, &errors));
    return bytes;
  }();
  return image;
}

class TextOutput : public BufferedOutput {
 public:
  explicit TextOutput(std::string* where) : BufferedOutput(64), text(where) {}
  ~TextOutput() override { Flush(); }
  using BufferedOutput::Flush;
  int DoWrite(const char* bytes, int length) override {
    text->append(bytes, static_cast<size_t>(length));
    return length;
  }
  int Header(const char*, int, int nameowned, const char*, int, int) override {
    Require(!nameowned);
    return 1;
  }

 private:
  std::string* text;
};

// Records the content of each temporary file. Some writes take only a part of the bytes.
class Files : public MemoryFileManager {
 public:
  using MemoryFileManager::Delete;
  using MemoryFileManager::MakeTemporary;
  using MemoryFileManager::MemoryFileManager;
  bool Delete(Zeph_PathType type, const char* path) override {
    deleted += "[" + files[path] + "]";
    return MemoryFileManager::Delete(type, path);
  }
  File* MakeTemporary(Zeph_PathType, const char*, const char* prefix, char** name, int) override {
    const std::string path = prefix + std::to_string(count++);
    *name = zeph_strdup(path.c_str());
    return new Temporary(this, path.c_str(), &files[path]);
  }
  std::string deleted;

 private:
  class Temporary : public MemoryFile {
   public:
    using MemoryFile::MemoryFile;
    int Write(const char* text, int length) override {
      return MemoryFile::Write(text, std::min(length, 100));
    }
  };
  int count = 0;
};

std::string Parsed(const std::string& content_type, const std::string& body, int limit, size_t most,
                   unsigned seed) {
  TestApplication application;
  Files files(&application);
  files.files["script"] = Image();
  std::string text, result;
  {
    LoadedScript script(&application, &files);
    Require(script.Load("script", files.Open("script", FileMode_Read)));
    script.file.Deactivate();
    TextOutput output(&text);
    application.SetOutput(&output);
    ExternalCallManager external(&application);
    ZephVM vm("script.zpc", -1, &application, &script.dictionary, &script.system, &script.globals,
              &script.segments, &script.functions, &external, nullptr, nullptr, nullptr, nullptr,
              application.heartbeatcounter(), application.timedoutflag(), application.exitflag(),
              nullptr);
    MultipartFormParser parser(&vm, &files, &script.globals, content_type.c_str(), limit);
    result = Feed(parser, body, most, seed);
    result += Contents(script.globals);
  }
  files.files.erase("script");
  for (const auto& [name, content] : files.files) result += "left " + name + ":" + content;
  Variable::FreeCycles();
  return result + text + files.deleted;
}

}  // namespace

// The first byte chooses the limit of fields and the length of the content type that comes before
// the body; length 0 means the usual type.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::string content_type = "multipart/form-data; boundary=B";
  const size_t length = std::min<size_t>(data[0] & 63, body.size());
  if (length > 0) {
    content_type = "multipart/form-data" + body.substr(0, length);
    body.erase(0, length);
  }
  const int limit = (data[0] >> 6) == 3 ? -1 : (data[0] >> 6) * 2;
  const unsigned seed = SeedOf(data, size);
  const std::string whole = Parsed(content_type, body, limit, body.size() + 1, 1);
  Require(Parsed(content_type, body, limit, 1, 1) == whole);
  Require(Parsed(content_type, body, limit, 1 + seed % 40, seed) == whole);
  return 0;
}

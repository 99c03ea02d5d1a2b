// Pages as files: where the sources of a folder are, how an included file is found, and how a
// compiled file is written. The programs that compile pages share it.

#ifndef ZEPH_COMPILER_PAGEFILES_H
#define ZEPH_COMPILER_PAGEFILES_H

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

// The ends of the names of sources and of compiled files.
extern const char source_extension[];
extern const char compiled_extension[];

// Reads a regular file. Returns false, with errno set, if it cannot be read.
[[nodiscard]] bool ReadWholeFile(const std::filesystem::path& path, std::string* text);

// Replaces a file in one step, so that an engine that runs it sees the old file or the new one.
// Makes the folders on the way. Returns false, with errno set, and then the old file is unchanged.
[[nodiscard]] bool WriteWholeFile(const std::filesystem::path& path, const std::string& bytes);

// Calls visit for every regular file below a folder with its path from there, in the order of these
// paths. Files and folders whose name begins with "." are left out.
void VisitFiles(const std::filesystem::path& root,
                const std::function<void(const std::string& name)>& visit);

// Whether a file of a folder is a page: a source whose name does not begin with "_".
bool IsPage(const std::string& name);

// The path of a page's compiled file, from the folder of all.
std::string CompiledName(const std::string& page);

// Where included files are: beside the file that includes them, then in more folders. Names in
// messages are paths from the folder that is compiled.
class PageIncludes {
 public:
  // The folders are borrowed.
  PageIncludes(const std::filesystem::path& root, const std::vector<std::string>& folders)
      : root(root), folders(folders) {}

  // As CompileOptions::reader.
  bool Read(const std::string& name, const std::string& from, std::string* found,
            std::string* text);

  // The path of a file by its name in messages.
  std::string Path(const std::string& name) const;

 private:
  bool Try(const std::filesystem::path& path, const std::filesystem::path& name, std::string* found,
           std::string* text);

  std::filesystem::path root;
  const std::vector<std::string>& folders;
  std::map<std::string, std::filesystem::path> paths;
};

#endif

// Pages as files: where the sources of a folder are, how an included file is found, and how a
// compiled file is written. The programs that compile pages share it.

#ifndef ZEPH_COMPILER_PAGEFILES_H
#define ZEPH_COMPILER_PAGEFILES_H

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

// The ends of the names of sources and of compiled files.
extern const char source_extension[];
extern const char compiled_extension[];

// Reads a regular file of at most kLargestFile bytes. Returns false, with errno set, if it cannot
// be read; EFBIG for a larger one, whose bytes are not read.
constexpr size_t kLargestFile = size_t{256} << 20;
[[nodiscard]] bool ReadWholeFile(const std::filesystem::path& path, std::string* text);

// Writes all bytes to a descriptor. Returns false, with errno set, if some could not be written.
[[nodiscard]] bool WriteAll(int descriptor, const std::string& bytes);

// Replaces a file in one step, so that an engine that runs it sees the old file or the new one.
// Makes the folders on the way. Returns false, with errno set, and then the old file is unchanged.
[[nodiscard]] bool WriteWholeFile(const std::filesystem::path& path, const std::string& bytes);

// A folder that could not be read: its path from the folder of all, empty for that one, and errno.
struct UnreadFolder {
  std::string name;
  int reason = 0;
  bool operator==(const UnreadFolder& other) const = default;
};

// "cannot read" with the folder's path below root, and the reason.
std::string TextOf(const UnreadFolder& folder, const std::filesystem::path& root);

// Calls visit for every regular file below a folder with its path from there, in the order of these
// paths. Files and folders whose name begins with "." are left out; folders that are links are not
// entered. Returns the folders that could not be read: a file that is not visited may be in one of
// them. One that goes away meanwhile is none.
[[nodiscard]] std::vector<UnreadFolder> VisitFiles(
    const std::filesystem::path& root, const std::function<void(const std::string& name)>& visit);

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

  // The paths where files were looked for that are not there.
  const std::vector<std::string>& missing() const { return missing_paths; }

  // The path of a file by its name in messages.
  std::string Path(const std::string& name) const;

 private:
  bool Try(const std::filesystem::path& path, const std::filesystem::path& name, std::string* found,
           std::string* text);

  std::filesystem::path root;
  const std::vector<std::string>& folders;
  std::map<std::string, std::filesystem::path> paths;
  std::vector<std::string> missing_paths;
};

#endif

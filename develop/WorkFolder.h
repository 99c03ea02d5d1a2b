// The folder .zeph of a site, in which zeph keeps what it makes.

#ifndef ZEPH_DEVELOP_WORKFOLDER_H
#define ZEPH_DEVELOP_WORKFOLDER_H

#include <filesystem>
#include <string>
#include <vector>

extern const char work_name[];

// Whether .zeph and these folders of it are zeph's own or not there yet. zeph removes files in
// them, so a link in their place is refused with a message.
[[nodiscard]] bool IsOwnWork(const std::filesystem::path& root,
                             const std::vector<std::string>& names);
// Makes these folders of .zeph. Returns false after a message.
[[nodiscard]] bool MakeWork(const std::filesystem::path& root,
                            const std::vector<std::string>& names);

// Removes the compiled files below a folder whose sources are not in the site any more. Returns
// false after a message if the folder has a link to a folder, through which files elsewhere would
// be written.
[[nodiscard]] bool RemoveForeignPages(const std::filesystem::path& root,
                                      const std::filesystem::path& pages);

#endif

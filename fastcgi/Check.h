// Checks what the engine needs before it serves: the settings file, the directories and the rights
// to them, the libraries, and the log.

#ifndef ZEPH_FASTCGI_CHECK_H
#define ZEPH_FASTCGI_CHECK_H

#include <ostream>
#include <string>

// Checks the file of settings at the path; an empty path is the file that the configuration library
// of the engine would read, started here and now. Writes what it has looked at, a line
// "problem: ..." for each mistake and "note: ..." for what may be meant otherwise, and a last line
// that counts the problems. Returns false if there is one. Changes no file; the code of libraries
// that runs when they are loaded does run.
[[nodiscard]] bool CheckInstallation(const std::string& path, std::ostream& out);

#endif

// A program that zeph runs, which ends with zeph.

#ifndef ZEPH_DEVELOP_CHILD_H
#define ZEPH_DEVELOP_CHILD_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

// The program gets its own process group, so that Ctrl-C reaches only zeph, which then ends all in
// order. Should zeph die, the system kills the program.
class Child {
 public:
  Child() = default;
  // Kills the program if it still runs.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  struct Program {
    std::vector<std::string> words;                  // the path, then the arguments
    std::map<std::string, std::string> environment;  // added to that of zeph
    std::string directory;
    int input = -1;  // becomes descriptor 0; -1 for none
    // A listening socket that the program takes over as descriptor 3; -1 for none.
    int activation = -1;
  };
  // Starts it. Returns false, with errno set, if that fails; a program that cannot be executed ends
  // with status 127. REQUIRES: called on the main thread, whose end would be the program's end.
  [[nodiscard]] bool Start(const Program& program);

  pid_t process() const { return pid; }
  // After the program's end was noticed by waitpid.
  void Forget() { pid = -1; }
  // Asks it to end, and waits so long before it is killed; if hurry returns true, no longer.
  void Stop(std::chrono::milliseconds patience, const std::function<bool()>& hurry = {});

 private:
  pid_t pid = -1;
};

#endif

// The command line of zeph.

#ifndef ZEPH_DEVELOP_ARGUMENTS_H
#define ZEPH_DEVELOP_ARGUMENTS_H

#include <string>
#include <vector>

enum class ZephCommand { Help, Version, New, Dev, Build, Check, Run };

struct ZephArguments {
  ZephCommand command = ZephCommand::Help;
  // Of Help: the command that is explained; empty for all.
  std::string topic;
  std::string place = ".";  // the folder, or the page
  std::string output;       // of build; empty for the default
  int port = 8080;          // of dev; 0 for any that is free
  std::vector<std::string> defines;
  bool warnings_fail = false;
  std::vector<std::string> request;  // of run: options for zprun
};

// Parses the words after the program's name. Returns false on an error, with the reason in
// *problem.
[[nodiscard]] bool ParseZephArguments(const std::vector<std::string>& words,
                                      ZephArguments* arguments, std::string* problem);

// The help of a command; of all for an empty name. Empty if there is no such command.
std::string ZephHelp(const std::string& topic);

#endif

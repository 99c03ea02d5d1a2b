// A mail server of another maker: tests/support/smtp_server.py.

#ifndef ZEPH_TESTS_SUPPORT_SMTPSERVER_H
#define ZEPH_TESTS_SUPPORT_SMTPSERVER_H

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

class SMTPServer {
 public:
  // The arguments after the folder, as smtp_server.py says.
  explicit SMTPServer(const std::vector<std::string>& arguments = {})
      : command({"/usr/bin/python3", Program(), "serve", folder.path()}) {
    command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
    command.output_file = output.path("out");
    command.Start();
    for (int i = 0; i < 500 && bound == 0; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      const std::string text = output.Content("out");
      if (text.ends_with("\n")) bound = std::stoi(text.substr(5));
    }
    EXPECT_NE(bound, 0) << "the server did not start";
  }

  static std::string Program() { return InSource("tests/support/smtp_server.py"); }
  int port() const { return bound; }
  // "mail.1" and so on, "envelope.1" and so on, "commands", "ended"; empty without such a file.
  std::string Content(const std::string& name) const { return folder.Content(name); }
  std::string path(const std::string& name) const { return folder.path(name); }

 private:
  TemporaryDirectory folder;
  TemporaryDirectory output;
  Command command;
  int bound = 0;
};

#endif

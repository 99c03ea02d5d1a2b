// Throwaway certificates, made by the openssl program, and servers that use them.

#ifndef ZEPH_TESTS_SUPPORT_TLSFILES_H
#define ZEPH_TESTS_SUPPORT_TLSFILES_H

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/TemporaryDirectory.h"

// A folder with the files, which are made once in a process:
//   ca/              an authority, as a folder of hashed names
//   NAME.pem, .key   certificates of servers, and their keys
//   client*          one of a client, with its key in the same file
//   page.txt         "<a>b<c>d"
class TLSFiles {
 public:
  static const TLSFiles& Get() {
    static const TLSFiles files;
    return files;
  }
  std::string path(const std::string& name = "") const {
    return name.empty() ? directory.path() : directory.path(name);
  }
  std::string Content(const std::string& name) const { return directory.Content(name); }

 private:
  TLSFiles() {
    static const char script[] = R"(
set -e
request() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $1.key -out $1.csr -subj "$2"; }
authority() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $1.key -out $1.pem -subj "/CN=$1" -days 2; }
# certificate NAME SUBJECT ALTERNATIVES AUTHORITY DAYS
certificate() {
  request $1 "$2"
  : > $1.ext
  if [ -n "$3" ]; then echo "subjectAltName=$3" > $1.ext; fi
  openssl x509 -req -in $1.csr -CA $4.pem -CAkey $4.key -CAcreateserial -days $5 -extfile $1.ext -out $1.pem
}
authority authority
authority stranger
mkdir ca
cp authority.pem ca/
openssl rehash ca
certificate names /CN=unused.example.net "DNS:localhost,DNS:*.example.org,DNS:p*.example.com,IP:127.0.0.1,IP:::1" authority 2
certificate common /CN=localhost "" authority 2
certificate both /CN=localhost "DNS:other.example.net" authority 2
certificate other /CN=other.example.net "DNS:other.example.net,IP:127.0.0.2" authority 2
certificate nul "/CN=other.example.net" "" authority 2
certificate expired /CN=localhost "DNS:localhost" authority -1
certificate foreign /CN=localhost "DNS:localhost" stranger 2
request selfsigned /CN=localhost
openssl x509 -req -in selfsigned.csr -signkey selfsigned.key -days 2 -out selfsigned.pem
certificate client /CN=client "" authority 2
cat client.pem client.key > client_both.pem
cat client.key client.pem > client_keyfirst.pem
cat client.pem > client_nokey.pem
openssl ec -in client.key -aes128 -passout pass:secret -out client_locked.key
cat client.pem client_locked.key > client_locked.pem
openssl x509 -in client.pem -outform DER -out client_both.der
cp client_both.der client_nokey.der
openssl ec -in client.key -outform DER >> client_both.der
: > empty.pem
printf '<a>b<c>d' > page.txt
)";
    Command command({"/bin/sh", "-c", script});
    command.directory = directory.path();
    EXPECT_EQ(command.Run(), 0) << command.errors;
  }

  TemporaryDirectory directory;
};

// openssl s_server with one of the certificates. It sends every line back with its letters in
// reverse, and ends a connection in which it reads the line CLOSE. With "-WWW" as its kind it is a
// web server for the files of the folder, whose responses end with the connection.
class TLSServer {
 public:
  explicit TLSServer(const std::string& name, const std::vector<std::string>& more = {},
                     const std::string& kind = "-rev")
      : command({"/usr/bin/openssl", "s_server", "-accept", "127.0.0.1:0", kind, "-cert",
                 name + ".pem", "-key", name + ".key"}) {
    command.arguments.insert(command.arguments.end(), more.begin(), more.end());
    command.directory = TLSFiles::Get().path();
    command.output_file = output.path("out");
    command.Start();
    for (int i = 0; i < 500 && bound == 0; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      const std::string text = output.Content("out");
      const size_t place = text.find("ACCEPT 127.0.0.1:");
      if (place != std::string::npos && text.find('\n', place) != std::string::npos) {
        bound = std::stoi(text.substr(place + 17));
      }
    }
    EXPECT_NE(bound, 0) << "the server did not start";
  }

  int port() const { return bound; }
  void Signal(int number) { command.Signal(number); }

 private:
  TemporaryDirectory output;
  Command command;
  int bound = 0;
};

#endif

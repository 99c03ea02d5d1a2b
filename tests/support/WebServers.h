// Web servers of other makers on free ports of this machine, for tests of calls. Each runs until
// its object is deleted.

#ifndef ZEPH_TESTS_SUPPORT_WEBSERVERS_H
#define ZEPH_TESTS_SUPPORT_WEBSERVERS_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/TemporaryDirectory.h"

// Fails the test, or ends it with a word, if a program is not there. script/setup installs them.
#define REQUIRE_PROGRAM(path) \
  if (access(path, X_OK) != 0) GTEST_SKIP() << path " is not installed; script/setup installs it"

// A port that was free a moment ago.
inline int FreePort() {
  return ListeningPeer([](ListeningPeer::Connection&) {}).port();
}

// A server in Python. Its paths:
//   /chunked/N     the body in chunks of N bytes
//   /length        the body with its length
//   /close         the body, which ends with the connection
//   /status/N      a response of that status with the status as its body
//   /echo?...      what has arrived: the request line and, one on a line, the headers that matter;
//                  then the body, or the parts that Python's own reader of forms finds in it
// The body is the file "body" of the server's folder.
class PythonServer {
 public:
  // The address to listen on, such as ::1; the version of HTTP that it speaks.
  explicit PythonServer(const std::string& body, const std::string& address = "127.0.0.1",
                        const std::string& version = "HTTP/1.1")
      : command({"/usr/bin/python3", "-u", folder.File("server.py", kProgram), address, version,
                 folder.File("body", body)}) {
    command.output_file = folder.path("output");
    command.directory = folder.path();
    command.Start();
    for (int i = 0; i < 1000 && bound == 0; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      const std::string text = folder.Content("output");
      if (text.ends_with('\n')) bound = std::stoi(text);
    }
    EXPECT_NE(bound, 0) << "the server did not start";
  }
  int port() const { return bound; }
  // From the next request on.
  void SetBody(const std::string& body) { folder.File("body", body); }

 private:
  static constexpr char kProgram[] = R"py(
import email.parser, email.policy, http.server, socket, sys

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = sys.argv[2]
    def log_message(self, *_): pass
    def begin(self, status, *headers):
        self.send_response(status)
        for name, value in headers: self.send_header(name, value)
        self.end_headers()
    def whole(self, status, body):
        self.begin(status, ("Content-Length", str(len(body))))
        if self.command != "HEAD": self.wfile.write(body)
    def serve(self):
        sent = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        what, _, rest = self.path[1:].partition("/")
        body = open(sys.argv[3], "rb").read()
        if what == "chunked":
            self.begin(200, ("Transfer-Encoding", "chunked"))
            size = int(rest)
            for at in range(0, len(body), size):
                piece = body[at:at + size]
                self.wfile.write(b"%x\r\n%s\r\n" % (len(piece), piece))
            self.wfile.write(b"0\r\n\r\n")
        elif what == "length":
            self.whole(200, body)
        elif what == "close":
            self.begin(200)
            self.wfile.write(body)
            self.close_connection = True
        elif what == "status":
            self.whole(int(rest), rest.encode())
        else:
            self.whole(200, self.echo(sent))
    def echo(self, sent):
        lines = [self.requestline]
        kind = self.headers.get("Content-Type", "")
        for name in ("Host", "Connection", "Content-Length", "X-More"):
            if name in self.headers: lines.append(name + ": " + self.headers[name])
        if not kind.startswith("multipart/"):
            if kind: lines.append("Content-Type: " + kind)
            return "\n".join(lines).encode() + b"\n" + sent
        whole = b"Content-Type: " + kind.encode() + b"\r\n\r\n" + sent
        form = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(whole)
        lines = [line for line in lines if not line.startswith("Content-Length")]
        for part in form.iter_parts():
            lines.append("%s %s %s %r" % (part.get_param("name", header="content-disposition"),
                         part.get_filename(), part["Content-Type"], part.get_payload(decode=True)))
        if form.defects: lines.append(repr(form.defects))
        return "\n".join(lines).encode()
    do_GET = do_POST = do_HEAD = do_PUT = do_OPTIONS = do_DELETE = do_TRACE = serve
    do_PATCH = do_LINK = do_UNLINK = do_CONNECT = serve

class Server(http.server.ThreadingHTTPServer):
    address_family = socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET
    daemon_threads = True

server = Server((sys.argv[1], 0), Handler)
print(server.server_address[1])
server.serve_forever()
)py";

  TemporaryDirectory folder;
  Command command;
  int bound = 0;
};

// nginx with those texts as its servers. It has the folder for itself.
class NginxServer {
 public:
  explicit NginxServer(const std::string& servers)
      : command({"/usr/sbin/nginx", "-e", folder.path("errors"), "-c", folder.path("conf"), "-p",
                 folder.path()}) {
    std::string text = "daemon off;\nmaster_process off;\npid " + folder.path("pid") +
                       ";\nevents {}\nhttp {\naccess_log off;\n";
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
      text += std::string(kind) + "_temp_path " + folder.path(kind) + ";\n";
    }
    folder.File("conf", text + servers + "}\n");
    command.output_file = folder.path("output");
    command.Start();
  }
  // Waits until it listens there.
  void WaitFor(int port) {
    for (int i = 0; i < 500; i++) {
      const FileDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in address = {};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address.sin_port = htons(static_cast<in_port_t>(port));
      if (connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << folder.Content("errors");
  }

 private:
  TemporaryDirectory folder;
  Command command;
};

#endif

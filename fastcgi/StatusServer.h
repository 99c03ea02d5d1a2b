// A small HTTP server for the pages of status, on a socket of its own, so that the pages are there
// also when all request threads are busy.

#ifndef ZEPH_FASTCGI_STATUSSERVER_H
#define ZEPH_FASTCGI_STATUSSERVER_H

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "base/host/FileDescriptor.h"
#include "fastcgi/StatusReport.h"

// An address to listen on: "127.0.0.1:8081", "[::1]:8081", or the absolute path of a UNIX socket.
struct StatusAddress {
  // Returns false, and leaves the text in *problem, if it is none. Looks up no name.
  [[nodiscard]] static bool Parse(const std::string& text, StatusAddress* address,
                                  std::string* problem);

  sockaddr_storage storage{};
  socklen_t length = 0;
  std::string path;  // of a UNIX socket
};

// Serves /ping, /status, /status.json and /metrics, one request a connection, in the calling
// thread. No client delays another one; one that sends or takes nothing for five seconds is given
// up, and at most 16 are served at a time. One thread uses an object.
class StatusServer {
 public:
  // `report` is called for each request.
  explicit StatusServer(std::function<StatusReport()> report) : report(std::move(report)) {}
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  // Listens on a StatusAddress. Replaces a UNIX socket on which no one listens. Returns false with
  // the reason in *problem.
  [[nodiscard]] bool Listen(const std::string& text, std::string* problem);
  // Takes over a socket that listens already.
  void Adopt(int descriptor);
  // Ends all connections; `removes` also takes away the file of a UNIX socket.
  void Close(bool removes);

  // Waits until there is something to do, does it, and returns. It also returns when one of
  // `others` is ready, whose revents it sets, and after that many milliseconds; -1 is no limit.
  // Works without a socket too. While a new client cannot be accepted, or there is no memory, it
  // tries again ten times a second.
  void Turn(std::vector<pollfd>* others, int timeout);

  // The response to the bytes of a request, whole.
  std::string Respond(const std::string& request) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Client {
    FileDescriptor descriptor;
    Clock::time_point end;
    std::string input;
    std::string output;
    size_t sent = 0;
  };

  void TurnOnce(std::vector<pollfd>* others, int timeout);
  void Accept();
  bool Serve(Client* client);
  bool Read(Client* client);
  bool Write(Client* client);

  std::function<StatusReport()> report;
  FileDescriptor listening;
  std::string path;
  std::list<Client> clients;
  Clock::time_point accept_time;  // no client is accepted before
};

// Serves the status of this process by a thread.
class StatusThread {
 public:
  StatusThread() = default;
  // Ends the thread.
  ~StatusThread();
  StatusThread(const StatusThread&) = delete;
  StatusThread& operator=(const StatusThread&) = delete;

  // Makes the record of this process and starts the thread. `descriptor` listens already, or is -1,
  // and then the address counts. Returns false with a text, and then nothing has been started.
  // REQUIRES: signals are blocked in the calling thread, and no request thread exists.
  [[nodiscard]] bool Start(const std::string& address, int descriptor, int threads,
                           std::string* problem);

 private:
  static void* Run(void* argument);

  StatusBoard board;
  std::unique_ptr<StatusServer> server;
  FileDescriptor stop;
  pthread_t thread{};
  bool started = false;
};

#endif

// Sits between the web server and the engine, and speaks FastCGI with both: shows the errors of
// pages that were not compiled, adds the script that reloads a page, and tells browsers of changes.
// The web server has the visitors' connections, so a page finds the same request as on a real
// server.

#ifndef ZEPH_DEVELOP_GATEWAY_H
#define ZEPH_DEVELOP_GATEWAY_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "base/host/FileDescriptor.h"
#include "develop/LiveSite.h"

class Gateway {
 public:
  // Requests at a time, and with them the threads. A page that is open in a browser is one.
  static constexpr int kMostRequests = 1000;

  // root is the site's folder, engine the path of the socket that the engine listens on. shared has
  // the files of Places::shared. The site is borrowed. One more request than most_requests gets the
  // status 502.
  Gateway(LiveSite* site, std::filesystem::path root, std::string engine,
          std::filesystem::path shared, int most_requests = kMostRequests);
  ~Gateway() { Stop(); }
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  // Listens on a UNIX socket of that path, with a thread for each request. Returns false, with
  // errno set, on failure. A request for which the system has no thread gets the status 502.
  [[nodiscard]] bool Start(const std::string& path);
  // Ends all requests and waits for their threads. The site's Stop comes first.
  void Stop();
  // Whether all that the engine was asked for is done, as far as requests go.
  bool is_idle();

 private:
  using Parameters = std::map<std::string, std::string>;

  // A request of the web server: its socket, and what has been read of it.
  struct Request {
    int socket = -1;
    int id = 0;
    std::string begin;  // the records up to the end of the parameters
    Parameters parameters;
    std::string path;  // without the slash at its begin
    bool is_visit = false;
    bool is_post = false;
    uint64_t version = 0;  // of the site, when the request came
  };

  void Accept();
  // Begins a thread for a request. Returns false if there are too many or the system has none.
  [[nodiscard]] bool StartServing(FileDescriptor* connection);
  void Serve(FileDescriptor connection);
  void Refuse(const FileDescriptor& connection);
  // Connects with the engine. Waits while it takes no connection, but not for a visitor who has
  // gone, and not after Stop. Returns the descriptor, or -1.
  [[nodiscard]] int ConnectEngine(const Request& request);
  [[nodiscard]] bool ReadRequest(Request* request);
  void Answer(const Request& request);

  void SendEvents(const Request& request);
  void SendFile(const Request& request, const std::string& name, const std::string& type,
                bool is_page);
  void SendErrors(const Request& request, const std::vector<Problem>& problems);
  void SendMissing(const Request& request);
  // A whole response; head has header fields, each with its line end.
  void Send(const Request& request, const std::string& head, const std::string& body);
  void PassOn(const Request& request);
  void NoteUnfinished(int change);
  // Sends the begin of a request and what the web server sends after it on to the engine, until one
  // of them has enough.
  void CopyRequest(const Request& request, int to);
  // The text at the end of a page.
  std::string Addition(const Request& request, std::string_view body);
  // Whether a static page of the site has this name.
  bool IsStaticPage(const std::string& name) const;

  // Lets Stop close a socket under the thread that waits on it.
  class OpenSocket;

  LiveSite* site;
  std::filesystem::path root;
  std::string engine;
  std::filesystem::path shared;
  int most_requests;
  FileDescriptor listener;
  std::thread acceptor;
  std::mutex mutex;
  std::condition_variable ended;
  std::set<int> sockets;
  int threads = 0;
  int unfinished = 0;  // requests whose end the engine has not told of
  bool stopping = false;
};

// Makes a UNIX socket that listens on a path. Returns the descriptor, or -1 with errno set.
int ListenOnSocket(const std::string& path);

#endif

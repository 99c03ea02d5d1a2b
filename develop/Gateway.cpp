// FastCGI to both sides. Tested in tests/develop/GatewayTest.cpp and tests/e2e/DevelopTest.cpp.

#include "develop/Gateway.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <iostream>
#include <system_error>
#include <utility>

#include "compiler/PageFiles.h"
#include "compiler/Tags.h"
#include "develop/PageFilter.h"
#include "develop/Records.h"

namespace fs = std::filesystem;

namespace {

// URLs of zeph's own.
constexpr char kOwn[] = "-zeph/";
constexpr char kEvents[] = "-zeph/events";
constexpr char kScript[] = "-zeph/reload.js";

constexpr char kIndex[] = "index.zpc";
constexpr size_t kMostParameters = size_t{4} << 20;

// A connection that has nothing to say shows in this time whether it is still there.
constexpr std::chrono::milliseconds kQuiet(5000);

// How long a connection to the engine waits before it looks whether it is still wanted.
constexpr std::chrono::milliseconds kConnecting(100);

// How long a request that gets no thread holds up the others.
constexpr std::chrono::milliseconds kRefusing(200);

constexpr char kBadGateway[] =
    "Status: 502 Bad Gateway\r\nContent-Type: text/plain\r\nCache-Control: no-store\r\n";

bool FillAddress(const std::string& path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

void SetTimeout(int socket, int option, std::chrono::milliseconds time) {
  timeval value = {};
  value.tv_sec = time.count() / 1000;
  value.tv_usec = time.count() % 1000 * 1000;
  setsockopt(socket, SOL_SOCKET, option, &value, sizeof value);
}

// Whether the peer of a socket has closed it.
bool IsClosed(int socket) {
  pollfd polled = {socket, 0, 0};
  return poll(&polled, 1, 0) > 0 && (polled.revents & (POLLHUP | POLLERR)) != 0;
}

// Starts a thread. Returns false if the system has none.
template <typename Work>
bool StartThread(std::thread* thread, Work work) {
  try {
    *thread = std::thread(std::move(work));
    return true;
  } catch (const std::system_error&) {
    errno = EAGAIN;
    return false;
  }
}

std::string Value(const std::map<std::string, std::string>& parameters, const char* name) {
  auto found = parameters.find(name);
  return found == parameters.end() ? "" : found->second;
}

bool EndsWith(const std::string& text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

int ListenOnSocket(const std::string& path) {
  sockaddr_un address;
  FileDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!made.is_open() || !FillAddress(path, &address)) return -1;
  const int waiting = 128;
  if (bind(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(made.get(), waiting) != 0) {
    return -1;
  }
  return made.release();
}

class Gateway::OpenSocket {
 public:
  OpenSocket(Gateway* gateway, int socket) : gateway(gateway), socket(socket) {
    const std::lock_guard<std::mutex> guard(gateway->mutex);
    gateway->sockets.insert(socket);
    if (gateway->stopping) shutdown(socket, SHUT_RDWR);
  }
  ~OpenSocket() {
    const std::lock_guard<std::mutex> guard(gateway->mutex);
    gateway->sockets.erase(socket);
  }
  OpenSocket(const OpenSocket&) = delete;
  OpenSocket& operator=(const OpenSocket&) = delete;

 private:
  Gateway* gateway;
  int socket;
};

Gateway::Gateway(LiveSite* site, fs::path root, std::string engine, fs::path shared,
                 int most_requests)
    : site(site),
      root(std::move(root)),
      engine(std::move(engine)),
      shared(std::move(shared)),
      most_requests(most_requests) {}

bool Gateway::Start(const std::string& path) {
  listener.reset(ListenOnSocket(path));
  if (!listener.is_open()) return false;
  return StartThread(&acceptor, [this] { Accept(); });
}

void Gateway::Stop() {
  if (!acceptor.joinable()) return;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    stopping = true;
    for (const int socket : sockets) shutdown(socket, SHUT_RDWR);
  }
  shutdown(listener.get(), SHUT_RDWR);
  acceptor.join();
  std::unique_lock<std::mutex> lock(mutex);
  ended.wait(lock, [this] { return threads == 0; });
}

bool Gateway::is_idle() {
  const std::lock_guard<std::mutex> guard(mutex);
  return unfinished == 0;
}

void Gateway::NoteUnfinished(int change) {
  const std::lock_guard<std::mutex> guard(mutex);
  unfinished += change;
}

void Gateway::Accept() {
  for (;;) {
    FileDescriptor connection(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    {
      const std::lock_guard<std::mutex> guard(mutex);
      if (stopping) return;
    }
    if (!connection.is_open()) {
      // Out of descriptors, as a rule: others are given back soon.
      if (errno != EINTR && errno != ECONNABORTED) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      continue;
    }
    if (!StartServing(&connection)) Refuse(connection);
  }
}

bool Gateway::StartServing(FileDescriptor* connection) {
  const auto leave = [this] {
    const std::lock_guard<std::mutex> guard(mutex);
    threads--;
    ended.notify_all();
  };
  {
    const std::lock_guard<std::mutex> guard(mutex);
    if (threads >= most_requests) return false;
    threads++;
  }
  std::thread thread;
  // The thread owns the socket as soon as it is there.
  const int socket = connection->get();
  if (!StartThread(&thread, [this, socket, leave] {
        Serve(FileDescriptor(socket));
        leave();
      })) {
    leave();
    return false;
  }
  static_cast<void>(connection->release());
  thread.detach();
  return true;
}

// On the thread that accepts, so for a short time only.
void Gateway::Refuse(const FileDescriptor& connection) {
  const OpenSocket open(this, connection.get());
  SetTimeout(connection.get(), SO_RCVTIMEO, kRefusing);
  SetTimeout(connection.get(), SO_SNDTIMEO, kRefusing);
  Request request;
  request.socket = connection.get();
  if (!ReadRequest(&request)) return;
  Send(request, kBadGateway, "zeph has too many requests at a time.\n");
  shutdown(connection.get(), SHUT_WR);
  // Once, or the response might be lost with what has not been read.
  std::string rest(4096, '\0');
  static_cast<void>(recv(connection.get(), rest.data(), rest.size(), 0));
}

void Gateway::Serve(FileDescriptor connection) {
  const OpenSocket open(this, connection.get());
  Request request;
  request.socket = connection.get();
  if (!ReadRequest(&request)) return;
  Answer(request);
  // What the web server has not sent yet is read, or the response might be lost.
  shutdown(connection.get(), SHUT_WR);
  std::string rest(4096, '\0');
  while (recv(connection.get(), rest.data(), rest.size(), 0) > 0) {
  }
}

bool Gateway::ReadRequest(Request* request) {
  std::string text;
  for (Record record; request->begin.size() < kMostParameters;) {
    if (!ReadRecord(request->socket, &record)) return false;
    request->begin += record.bytes;
    request->id = record.request;
    if (record.type != kRecordParameters) continue;
    text += record.content;
    if (!record.content.empty()) continue;
    if (!ParseParameters(text, &request->parameters)) return false;
    request->path = Value(request->parameters, "PATH_INFO");
    if (!request->path.empty() && request->path[0] == '/') request->path.erase(0, 1);
    const std::string method = Value(request->parameters, "REQUEST_METHOD");
    request->is_post = method == "POST";
    request->is_visit = IsVisit(method, Value(request->parameters, "HTTP_SEC_FETCH_DEST"),
                                Value(request->parameters, "HTTP_ACCEPT"));
    request->version = site->version();
    return true;
  }
  return false;
}

void Gateway::Answer(const Request& request) {
  const std::string& path = request.path;
  if (path == kEvents) return SendEvents(request);
  if (path == kScript) {
    return SendFile(request, (shared / "reload.js").string(), "text/javascript", false);
  }
  if (path.compare(0, strlen(kOwn), kOwn) == 0) return SendMissing(request);
  const std::string lower = LowerCase(path);
  if (EndsWith(lower, ".html") || EndsWith(lower, ".htm")) {
    if (!IsStaticPage(path)) return SendMissing(request);
    return SendFile(request, (root / path).string(), "text/html", true);
  }
  // A folder without a page of its own may have a static one.
  const std::string folder = path.substr(0, path.size() - std::min(path.size(), strlen(kIndex)));
  const bool is_index = path == folder + kIndex && (folder.empty() || EndsWith(folder, "/"));
  if (is_index && !site->HasPage(path) && IsStaticPage(folder + "index.html")) {
    return SendFile(request, (root / (folder + "index.html")).string(), "text/html", true);
  }
  const std::vector<Problem> errors = site->Errors(path);
  if (!errors.empty()) return SendErrors(request, errors);
  PassOn(request);
}

bool Gateway::IsStaticPage(const std::string& name) const {
  std::error_code failure;
  const fs::path full = (root / name).lexically_normal();
  const std::string inside = root.string() + "/";
  // Links are not followed, as by the web server.
  return full.string().compare(0, inside.size(), inside) == 0 && IsStaticFile(name) &&
         fs::canonical(full, failure) == full && fs::is_regular_file(full, failure);
}

void Gateway::Send(const Request& request, const std::string& head, const std::string& body) {
  const bool has_body = Value(request.parameters, "REQUEST_METHOD") != "HEAD";
  // A web server that is gone needs no response.
  static_cast<void>(
      WriteBytes(request.socket,
                 MakeRecords(kRecordOutput, request.id, head + "\r\n" + (has_body ? body : "")) +
                     EndOfStream(kRecordOutput, request.id) + EndOfRequest(request.id)));
}

void Gateway::SendMissing(const Request& request) {
  Send(request, "Status: 404 Not Found\r\nContent-Type: text/plain\r\n",
       "There is no such file.\n");
}

void Gateway::SendFile(const Request& request, const std::string& name, const std::string& type,
                       bool is_page) {
  std::string text;
  if (!ReadWholeFile(name, &text)) return SendMissing(request);
  if (is_page && request.is_visit) text += Addition(request, "");
  Send(request, "Content-Type: " + type + "\r\nCache-Control: no-cache\r\n", text);
}

void Gateway::SendErrors(const Request& request, const std::vector<Problem>& problems) {
  std::string shape;
  static_cast<void>(ReadWholeFile(shared / "error.html", &shape));
  std::string page = ProblemPage(shape, problems);
  if (request.is_visit) page += Addition(request, "");
  Send(request,
       "Status: 500 Internal Server Error\r\nContent-Type: text/html; charset=utf-8\r\n"
       "Cache-Control: no-store\r\n",
       page);
}

// The page says which version it shows. If there is another one already, the event comes at once.
void Gateway::SendEvents(const Request& request) {
  const std::string query = Value(request.parameters, "QUERY_STRING");
  uint64_t shown = 0;
  std::from_chars(query.data(), query.data() + query.size(), shown);
  const auto send = [&](const std::string& text) {
    return WriteBytes(request.socket, MakeRecords(kRecordOutput, request.id, text));
  };
  if (!send("Content-Type: text/event-stream\r\nCache-Control: no-store\r\n\r\nretry: 200\n\n")) {
    return;
  }
  while (site->WaitForChange(shown, kQuiet)) {
    if (site->version() != shown) {
      send("data: changed\n\n");
      break;
    }
    if (!send(":\n\n")) return;
  }
  static_cast<void>(WriteBytes(request.socket,
                               EndOfStream(kRecordOutput, request.id) + EndOfRequest(request.id)));
}

std::string Gateway::Addition(const Request& request, std::string_view body) {
  std::string addition;
  const std::vector<Problem> problems = site->RunErrors(body);
  if (!problems.empty()) {
    std::string shape;
    static_cast<void>(ReadWholeFile(shared / "panel.html", &shape));
    addition += ClosingOf(body) + ProblemPage(shape, problems);
    std::string text;
    for (const Problem& problem : problems) text += problem.Text("") + "\n";
    std::cerr << text;
  }
  return addition + "<script src=\"/" + kScript + "?" + std::to_string(request.version) + "\"" +
         (request.is_post ? " data-posted" : "") + "></script>\n";
}

void Gateway::CopyRequest(const Request& request, int to) {
  if (WriteBytes(to, request.begin)) {
    for (Record record; ReadRecord(request.socket, &record);) {
      if (!WriteBytes(to, record.bytes)) return;
    }
  }
  // The web server has closed its connection: the visitor has gone, or the response is complete.
  shutdown(to, SHUT_RDWR);
}

int Gateway::ConnectEngine(const Request& request) {
  sockaddr_un address;
  FileDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!made.is_open() || !FillAddress(engine, &address)) return -1;
  // A connection waits in turn while the engine's queue is full.
  SetTimeout(made.get(), SO_SNDTIMEO, kConnecting);
  while (connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    if (errno != EAGAIN && errno != EINTR) return -1;
    if (IsClosed(request.socket)) return -1;
    const std::lock_guard<std::mutex> guard(mutex);
    if (stopping) return -1;
  }
  SetTimeout(made.get(), SO_SNDTIMEO, std::chrono::milliseconds(0));
  return made.release();
}

void Gateway::PassOn(const Request& request) {
  const FileDescriptor connection(ConnectEngine(request));
  const int to = connection.get();
  if (to < 0) return Send(request, kBadGateway, "The engine does not run.\n");
  const OpenSocket open(this, to);
  // Before the engine gets anything. A script may run on when its visitor has gone, and then counts
  // as unfinished for good.
  NoteUnfinished(1);
  // A thread for each direction: neither side may have to wait until the other has been read.
  std::thread body;
  if (!StartThread(&body, [&] { CopyRequest(request, to); })) {
    NoteUnfinished(-1);
    return Send(request, kBadGateway, "zeph has too many requests at a time.\n");
  }
  PageFilter filter(request.is_visit,
                    [&](std::string_view page) { return Addition(request, page); });
  bool complete = false;
  for (Record record; !complete && ReadRecord(to, &record);) {
    if (record.type == kRecordOutput) {
      record.bytes = MakeRecords(kRecordOutput, request.id, filter.Take(record.content));
      // The end of the output is sent with the end of the request.
      if (record.content.empty()) continue;
    } else if (record.type == kRecordEnd) {
      complete = true;
      NoteUnfinished(-1);
      record.bytes = MakeRecords(kRecordOutput, request.id, filter.Finish()) +
                     EndOfStream(kRecordOutput, request.id) + record.bytes;
    }
    if (!WriteBytes(request.socket, record.bytes)) break;
  }
  if (!complete && !filter.has_begun()) {
    Send(request, kBadGateway, "The engine has ended while it ran this page.\n");
    complete = true;
  }
  // The web server closes its side then, which ends the other thread.
  shutdown(request.socket, complete ? SHUT_WR : SHUT_RDWR);
  shutdown(to, SHUT_RDWR);
  body.join();
}

// What the operator learns of a request or a task: its errors, and why it was slow. And what the
// visitor sees of an error in place of its message, if the settings want that.

#ifndef ZEPH_FASTCGI_REQUESTWATCH_H
#define ZEPH_FASTCGI_REQUESTWATCH_H

#include <ctime>
#include <string>
#include <string_view>

#include "base/host/ErrorLog.h"
#include "base/host/RunObserver.h"

class FastCGIBaseApplication;
struct FCGX_Request;

// Part of an application, and used on its thread. A request that runs well costs it one look at the
// clock at the beginning and one at the end.
class RequestWatch : public RunObserver {
 public:
  // Why a request ends with a message.
  enum class Cause {
    Script,         // an error of the script
    TimedOut,       // its time was over, or it was cancelled
    Configuration,  // the configuration, its library, or a directory that it names
    Missing,        // there is no such script
    Unreadable,     // the script cannot be opened, or is none
    Upload,         // a form that this host could not store, or its functions not process
    Client,         // the form or the query that the client sent
    LateClient,     // the form did not come in time
  };

  // What to send in place of a message.
  struct Reply {
    const char* status;     // for the header field "Status"; null to send none
    bool is_changed;        // the message is not shown
    std::string_view text;  // the message, or another one
    std::string_view page;  // if the message is not shown: a whole page, if nothing was sent yet;
                            // empty if the script goes on
  };

  // The application is borrowed.
  explicit RequestWatch(FastCGIBaseApplication* application);
  // For a task that the source's application starts.
  RequestWatch(FastCGIBaseApplication* application, const RequestWatch& source);

  // The request that is watched, borrowed. It outlives the application.
  void Begin(FCGX_Request* served) { request = served; }
  // The request's configuration was loaded, so its settings are known.
  void SetConfigured() { is_configured = true; }
  // The request has ended: reports it if it was slow. The path is that of its script.
  void End(const String& path);

  // A stage of the request is about to send a message; the text is what the log says of it, and
  // path the script's. Does nothing if an inner stage has done it already.
  void StageFails(Cause cause, const String& path, const String& text);
  // The status of a script that has ended with an error of which there is no message, for the
  // header field "Status"; null to send none.
  const char* SilentStatus();
  // Decides what becomes of a message that is to be sent. A message of which neither a stage nor a
  // machine has told before is the client's fault. The texts are valid until the next call.
  Reply ReplyTo(const char* text, int length);

  void Fails(const RunFailure& failure) override;
  void Beats(ZephVM* machine) override;

 private:
  // An error that was reported and whose message comes next.
  struct Pending {
    Cause cause;
    bool ends_request;
  };

  bool ClientIsGone() const;
  // Whether an error may have a line: a script that fails in a loop gets a few.
  bool MayReport();
  const char* Reference();
  void AddOrigin(LogLine* line);
  void Write(ErrorLog::Level level, const LogLine& line);
  int Setting(int id);
  // Seconds since the request began.
  double Elapsed() const;
  bool IsSlow() const;
  void ReportSlow(const char* what, const String& path, ZephVM* machine);
  void WriteSlow(const LogLine& line);
  std::string_view CancelText();
  void MakePage(const char* title, const char* what);

  FastCGIBaseApplication* application;
  FCGX_Request* request = nullptr;  // null in a task
  timespec began;
  bool is_configured = false;
  bool has_pending = false;
  Pending pending{};
  bool has_calls = false;  // the calls of a slow script were reported, or never will be
  bool has_timed_out = false;
  bool has_failed_silently = false;
  int lines = 0;
  char reference[12] = {};  // made when first needed
  // Of the request that has started a task.
  std::string task_client;
  std::string task_request;
  char page[640];
};

#endif

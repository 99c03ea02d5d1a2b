// SMTP, the feature of ZpSMTP: while it lasts, the output of the script is the text of a mail.

#ifndef ZEPH_BASE_SMTP_H
#define ZEPH_BASE_SMTP_H

#include <memory>

#include "base/core/StringClass.h"
#include "base/machine/Feature.h"

class Output;
class SMTPOutput;
class SMTPService;

// One mail. The opening instruction makes it, connects and starts the mail; the closing one
// finishes it. If a script leaves the block in any other way, the mail is sent as far as it was
// written.
class SMTP : public Feature {
 public:
  // Both are borrowed.
  SMTP(ZephApplication* application, ZephVM* vm);
  // Finishes the mail.
  ~SMTP() override;

  // Connects to the server and puts the output of the mail in front of the application's output.
  // The flags are separated by white space or commas: "tls", "starttls" and "noheaders", in any
  // case. With logging the traffic goes to the trace log. Returns false on failure, with the text
  // in error() and the output as it was. Once only.
  [[nodiscard]] bool Connect(const String& host, int port, const String& flags, const String& user,
                             const String& password, bool logging);
  // Gives the output back, ends the mail, reads the server's reply and leaves the server. Returns
  // false if the mail may not have been taken, with the text in error(). Does nothing without a
  // mail.
  [[nodiscard]] bool Finish();

  // The client, borrowed; null before Connect and after Finish.
  SMTPService* client() { return service.get(); }
  // The output that was current before; null before Connect has returned true and after Finish.
  Output* originaloutput() { return previous_output; }

 private:
  bool ParseFlags(const String& text, unsigned* flags);
  void GiveBack();

  Output* previous_output = nullptr;
  std::unique_ptr<SMTPService> service;
  SMTPOutput* output = nullptr;  // owned, see OutputLayer
};

#endif

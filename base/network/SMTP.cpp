// The block of a mail. Tested in tests/base/network/MailBlockTest.cpp.

#include "base/network/SMTP.h"

#include <cstring>
#include <new>
#include <utility>

#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/host/Config.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/network/SMTPOutput.h"
#include "base/network/SMTPService.h"

namespace {

struct CloseOutput {
  void operator()(SMTPOutput* output) const { output->Close(); }
};

}  // namespace

SMTP::SMTP(ZephApplication* application, ZephVM* vm) : Feature(application, vm, Type_SMTP) {}

// The script may have ended because memory ran out. Finish has closed everything then.
SMTP::~SMTP() {
  try {
    static_cast<void>(SMTP::Finish());
  } catch (const std::bad_alloc&) {
    return;
  }
}

bool SMTP::ParseFlags(const String& text, unsigned* flags) {
  static const struct {
    const char* word;
    unsigned flag;
  } words[] = {
      {"tls", SMTPService::TLS},
      {"starttls", SMTPService::StartTLS},
      {"noheaders", SMTPService::NoHeaders},
  };
  const auto separates = [](char c) { return c == ',' || zp_isspace(c); };
  *flags = 0;
  for (int i = 0; i < text.length;) {
    if (separates(text.data[i])) {
      i++;
      continue;
    }
    const char* const token = text.data + i;
    int length = 0;
    while (i < text.length && !separates(text.data[i])) i++, length++;
    unsigned flag = 0;
    for (const auto& known : words) {
      const size_t bytes = strlen(known.word);
      if (static_cast<size_t>(length) == bytes && memcmpi(token, known.word, bytes) == 0) {
        flag = known.flag;
      }
    }
    if (flag == 0) {
      String message("Unsupported flag \"");
      message.cat(token, length);
      message.cat("\"");
      Error(message);
      return false;
    }
    *flags |= flag;
  }
  if (!(*flags & SMTPService::TLS) || !(*flags & SMTPService::StartTLS)) return true;
  Error("Only one of the \"tls\" or \"starttls\" flags may be specified");
  return false;
}

bool SMTP::Connect(const String& host, int port, const String& flags, const String& user,
                   const String& password, bool logging) {
  unsigned parsed;
  if (!ParseFlags(flags, &parsed)) return false;
  Config* const config = application->config();
  const int timeout = config->value_integer(Config_timeout_mail);
  int own = 0;
  service = std::make_unique<SMTPService>(application, vm, host.data, host.length, host.allocated,
                                          &own, port, parsed, user, password, timeout);
  if (!service->SMTP_Connect(logging)) {
    Error(service->error());
    return false;
  }
  output = new SMTPOutput(application->output(), service->Connection(),
                          config->buffer_size(Config_bufsz_smtp), timeout);
  previous_output = application->SetOutput(output);
  return true;
}

// The guards close output and client in this order on every way out, so that nothing is left to do
// if memory runs out on the way.
bool SMTP::Finish() {
  const std::unique_ptr<SMTPService> ending = std::move(service);
  const std::unique_ptr<SMTPOutput, CloseOutput> sent(output);
  if (!sent) return true;
  GiveBack();
  output = nullptr;
  previous_output = nullptr;
  if (ending->Finish(sent.get())) return true;
  Error(ending->error());
  return false;
}

// Another output may be in front: a capture or a mail of this script that was left open, which is
// dropped with it, or one of a file that the script has loaded. If the output below has ended too,
// its end has already put the right output in front: nothing is changed.
void SMTP::GiveBack() {
  const bool covered = application->output() != output;
  if (covered && (dropped() || output->below_over())) return;
  application->SetOutput(output->below());
}

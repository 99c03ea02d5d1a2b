// The output of a script while it writes a mail.

#ifndef ZEPH_BASE_SMTPOUTPUT_H
#define ZEPH_BASE_SMTPOUTPUT_H

#include "base/host/OutputLayer.h"
#include "base/network/NetworkOutput.h"

// Sends the text of a mail, whose header has been sent. Every line break, of whatever kind, becomes
// CR LF, one at the very start is dropped, and a line of a single dot gets a second one, because it
// would end the mail. A dot in front of other text stays single.
//
// Messages of the engine are a part of the mail; header fields are the page's. After a write that
// failed nothing more is sent, so that no mail is delivered with a part missing in its middle.
class SMTPOutput : public NetworkOutput, public OutputLayer {
 public:
  // As NetworkOutput; the parent is counted if it is a layer.
  SMTPOutput(Output* parent, NetworkConnection* connection, int buffer_size, int timeout);
  // REQUIRES: no layer has this one below it. Otherwise use Close.
  ~SMTPOutput() override;

  // Ends the mail: what is not sent yet is dropped, and the connection is not used again. The maker
  // calls it instead of deleting the object.
  void Close();

  // Returns length, or strlen for -1.
  int Write(const char* text, int length) override;
  using BufferedOutput::Flush;
  // Does nothing, so that a script cannot send its mail in small pieces.
  int Flush(int withlength) override;
  int Header(const char* name, const char* value) override;
  int Header(const char* name, int namelength, int nameowned, const char* value, int valuelength,
             int valueowned) override;
  int DoWrite(const char* text, int length) override;

  // Ends the last line and the mail, and sends what is left. Returns false if not all of the mail
  // could be sent; the connection has the reason.
  [[nodiscard]] virtual bool FlushAndTerminate();

 private:
  // What the next byte comes after. A byte that a state does not take is looked at again in the
  // next one.
  enum State : int {
    Start = 0,    // nothing
    StartCR = 1,  // a CR, an LF, or a whole line break, at the start
    StartLF = 2,
    StartBreak = 3,
    InLine = 4,   // anything else: a dot here is an ordinary byte
    AfterCR = 5,  // a CR or an LF that may be half of a line break
    AfterLF = 6,
    BreakDue = 7,    // a whole line break, which is not sent yet
    DotAtStart = 8,  // a dot at the start of a line, which is not sent yet
  };

  int WriteLine(const char* text, int length);
  void WriteBreak();
  void WriteDots(int count);

  int state = Start;
  int at_line_start = 1;  // whether a dot sent now would be the first byte of a line
  bool failed = false;
};

#endif

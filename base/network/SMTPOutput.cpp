// The text of a mail on its way to the server. Tested in tests/base/network/SMTPOutputTest.cpp.

#include "base/network/SMTPOutput.h"

#include "base/core/MeasuredLength.h"
#include "base/network/NetworkConnection.h"

SMTPOutput::SMTPOutput(Output* parent, NetworkConnection* connection, int buffer_size, int timeout)
    : NetworkOutput(parent, connection, buffer_size, timeout), OutputLayer(parent, false) {}

SMTPOutput::~SMTPOutput() = default;

void SMTPOutput::Close() {
  used = 0;  // the destructor would send it
  failed = true;
  connection = nullptr;
  EndLayer();
}

int SMTPOutput::Flush(int) {
  return 0;
}

// The parent may be over by now.
int SMTPOutput::Header(const char* name, const char* value) {
  return below()->Header(name, value);
}

int SMTPOutput::Header(const char* name, int namelength, int nameowned, const char* value,
                       int valuelength, int valueowned) {
  return below()->Header(name, namelength, nameowned, value, valuelength, valueowned);
}

int SMTPOutput::DoWrite(const char* text, int length) {
  if (failed) return -1;
  const int count = NetworkOutput::DoWrite(text, length);
  failed = count < length;
  return count;
}

// The table of the states. Only InLine reads more than one byte at a time.
int SMTPOutput::Write(const char* text, int length) {
  length = MeasuredLength(text, length);
  for (int i = 0; i < length;) {
    const char c = text[i];
    switch (state) {
      case Start:
      case StartCR:
      case StartLF:
      case StartBreak:
        if (c == '.') {
          state = DotAtStart;
        } else if (state == Start && c == '\r') {
          state = StartCR;
        } else if (state == Start && c == '\n') {
          state = StartLF;
        } else if ((state == StartCR && c == '\n') || (state == StartLF && c == '\r')) {
          state = StartBreak;
        } else {
          state = InLine;
          continue;
        }
        break;
      case InLine:
        if (c != '\r' && c != '\n') {
          i += WriteLine(text + i, length - i);
          continue;
        }
        state = c == '\r' ? AfterCR : AfterLF;
        break;
      case AfterCR:
      case AfterLF: {
        const char other_half = state == AfterCR ? '\n' : '\r';
        state = BreakDue;
        if (c != other_half) continue;
        break;
      }
      case BreakDue:
        WriteBreak();
        state = c == '.' ? DotAtStart : InLine;
        if (c != '.') continue;
        break;
      case DotAtStart:
        WriteDots(c == '\r' || c == '\n' ? 2 : 1);
        state = InLine;
        continue;
    }
    i++;
  }
  return length;
}

// Writes the bytes up to the next line break, at least one, and returns their count.
int SMTPOutput::WriteLine(const char* text, int length) {
  int end = 1;
  while (end < length && text[end] != '\r' && text[end] != '\n') end++;
  at_line_start = 0;
  return BufferedOutput::Write(text, end);
}

void SMTPOutput::WriteBreak() {
  at_line_start = 1;
  BufferedOutput::Write("\r\n", 2);
}

void SMTPOutput::WriteDots(int count) {
  at_line_start = 0;
  BufferedOutput::Write("..", count);
}

bool SMTPOutput::FlushAndTerminate() {
  if (state == AfterCR || state == AfterLF || state == BreakDue) WriteBreak();
  if (state == DotAtStart) WriteDots(2);
  BufferedOutput::Write(at_line_start ? ".\r\n" : "\r\n.\r\n", -1);
  BufferedOutput::Flush();
  return !failed;
}

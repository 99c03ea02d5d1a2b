// An output that goes to a network connection.

#ifndef ZEPH_BASE_NETWORKOUTPUT_H
#define ZEPH_BASE_NETWORKOUTPUT_H

#include "base/core/StringClass.h"
#include "base/host/BufferedOutput.h"

class NetworkConnection;

// What a feature installs while the script's output belongs to its peer. A failed write is kept by
// the connection.
class NetworkOutput : public BufferedOutput {
 public:
  // Both are borrowed and outlive the output. The parent is the output that was current before. The
  // buffer size is in bytes, below 1 it counts as 8192; the timeout is that of each write.
  NetworkOutput(Output* parent, NetworkConnection* connection, int buffer_size, int timeout);
  // Writes what is left in the buffer.
  ~NetworkOutput() override;

  // Header fields are those of the page: the parent takes them.
  int Header(const char* name, const char* value) override;
  int Header(const char* name, int namelength, int nameowned, const char* value, int valuelength,
             int valueowned) override;
  // The result of the connection's Write.
  int DoWrite(const char* text, int length) override;

  // The connection's text of its last failure.
  const String& error();

 protected:
  Output* parent;
  int timeout;
  NetworkConnection* connection;
};

#endif

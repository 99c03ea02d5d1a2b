// Decorators that write a connection's traffic to the trace log.
// Tested in tests/base/network/LoggingNetworkConnectionTest.cpp.

#include "base/network/LoggingNetworkConnection.h"

#include <memory>

#include "base/compiled/Function.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/machine/ZephVM_Frame.h"

LoggingNetworkConnection::LoggingNetworkConnection(ZephApplication* application,
                                                   const String& hostname, int port,
                                                   NetworkConnection* connection)
    : NetworkConnection(application), port(port), connection(connection) {
  // Without memory for the copy, the destructor does not run.
  std::unique_ptr<NetworkConnection> guard(connection);
  this->hostname = hostname;
  static_cast<void>(guard.release());
}

LoggingNetworkConnection::~LoggingNetworkConnection() {
  delete connection;
}

bool LoggingNetworkConnection::EstablishTLSConnection(const char* hostname,
                                                      x509_st* client_certificate,
                                                      evp_pkey_st* client_key, int timeout) {
  return connection->EstablishTLSConnection(hostname, client_certificate, client_key, timeout);
}

x509_st* LoggingNetworkConnection::Server_Certificate() {
  return connection->Server_Certificate();
}

int LoggingNetworkConnection::Read(char* buffer, int length, int timeout) {
  const int count = connection->Read(buffer, length, timeout);
  if (count < 0) Log_Read_Error();
  if (count > 0) Log_Read_Data(buffer, count);
  return count;
}

int LoggingNetworkConnection::ReadLine(String& line, int timeout, int buffer_size) {
  const int count = connection->ReadLine(line, timeout, buffer_size);
  if (count < 0) Log_Read_Error();
  if (count > 0) Log_Read_Data(line.data, count);
  return count;
}

int LoggingNetworkConnection::Write(const char* bytes, int length, int timeout) {
  const int count = connection->Write(bytes, length, timeout);
  if (count < 0) Log_Write_Error();
  if (count > 0) Log_Write_Data(bytes, count);
  return count;
}

const String& LoggingNetworkConnection::error() {
  return connection->error();
}

void LoggingNetworkConnection::Error(const String& text) {
  connection->Error(text);
}

// --- The form for a machine ----------------------------------------------------------------------

namespace {

// The function that the script is in; null outside of functions. The filter of an import has a
// frame of its own, which belongs to the function below it.
Function* CurrentFunction(ZephVM* vm) {
  for (ZephVM_Frame* frame = vm->CurrentFrame(); frame; frame = frame->previous) {
    if (frame->type() == ZephVM_Frame::Function) {
      return static_cast<ZephVM_FunctionFrame*>(frame)->function;
    }
  }
  return nullptr;
}

LogParameter OfString(const String& text) {
  return LogParameter::OfText(text.data ? text.data : "", text.length);
}

const ZephVMLoggingNetworkConnectionData& DataOf(void* data) {
  return *static_cast<ZephVMLoggingNetworkConnectionData*>(data);
}

}  // namespace

// Copies the place, because the script goes on while the connection lasts, and a loop over the
// response reports where it began.
ZephVMLoggingNetworkConnection::ZephVMLoggingNetworkConnection(const String& hostname, int port,
                                                               NetworkConnection* connection,
                                                               void* data)
    : LoggingNetworkConnection(DataOf(data).vm->Application(), hostname, port, connection),
      log_type(DataOf(data).log_type) {
  ZephVM* const vm = DataOf(data).vm;
  int length;
  const char* name = vm->SourceFile(&length);
  file.assign(name, length);
  line = vm->Line();
  if (Function* current = CurrentFunction(vm)) function = current->name();
}

void ZephVMLoggingNetworkConnection::Log(const char* word, const String& text) {
  LogParameter parameters[] = {OfString(file),
                               OfString(function),
                               LogParameter::OfInteger(line),
                               OfString(hostname),
                               LogParameter::OfInteger(port),
                               LogParameter::OfText(word, -1),
                               OfString(text),
                               LogParameter::OfEnd()};
  application->Log(log_type, parameters);
}

void ZephVMLoggingNetworkConnection::Log_Read_Data(const char* bytes, int length) {
  Log("Received", String(bytes, length).Base64_Encode());
}

void ZephVMLoggingNetworkConnection::Log_Read_Error() {
  Log("Read Error", connection->error());
}

void ZephVMLoggingNetworkConnection::Log_Write_Data(const char* bytes, int length) {
  Log("Sent", String(bytes, length).Base64_Encode());
}

void ZephVMLoggingNetworkConnection::Log_Write_Error() {
  Log("Write Error", connection->error());
}

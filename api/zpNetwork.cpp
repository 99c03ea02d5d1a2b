// The functions for connections and HTTP responses. Tested in tests/api/zpNetworkTest.cpp.

#include <cstring>
#include <memory>

#include "api/zeph.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/network/HTTPResponseStream.h"
#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"

namespace {

constexpr int kLine = 512;  // bytes that a line is expected to have

NetworkManager* Network(ZPPROGRAM program) {
  return program->Application()->networkmanager();
}

}  // namespace

// --- Connections ---------------------------------------------------------------------------------

int zpNetwork_Is_IP_Address(ZPPROGRAM program, const char* text) {
  return Network(program)->IsIPAddress(text);
}
int zpNetwork_Get_Host_Address(ZPPROGRAM program, const char* name, char* buffer, int size) {
  String address;
  if (Network(program)->GetHostAddress(name, address) != 1) return -1;
  if (size <= address.length) {
    Network(program)->Error("The buffer is too small for the address");
    return -1;
  }
  if (address.length > 0) memcpy(buffer, address.data, static_cast<size_t>(address.length));
  buffer[address.length] = '\0';
  return 1;
}
ZPNETWORK zpNetwork_Connect(ZPPROGRAM program, const char* host, int port, int timeout) {
  return Network(program)->Connect(host, port, timeout);
}
ZPNETWORK zpNetwork_Connect_SSL(ZPPROGRAM program, const char* host, int port,
                                const char* certificate_file, const char* certificate_data,
                                const char* certificate_type, const char* password, int timeout) {
  NetworkManager* const network = Network(program);
  std::unique_ptr<NetworkConnection> connection(network->Connect(host, port, timeout));
  if (!connection) return nullptr;
  if (!network->SSL_Connect(connection.get(), host, certificate_file, certificate_data,
                            certificate_type, password, timeout)) {
    return nullptr;
  }
  return connection.release();
}
ZPNETWORK zpNetwork_Open_URL(ZPPROGRAM program, const char* url, const char* method,
                             const char* body, const char* content_type, int body_length,
                             const char* certificate_file, const char* certificate_data,
                             const char* certificate_type, const char* password,
                             const char* extra_headers, int extra_headers_length, int timeout) {
  return Network(program)->OpenURL(method, url, body, content_type, body_length, certificate_file,
                                   certificate_data, certificate_type, password, extra_headers,
                                   extra_headers_length, 1.0, timeout);
}
int zpNetwork_Read(ZPNETWORK connection, char* buffer, int length, int timeout) {
  return connection->Read(buffer, length, timeout);
}
int zpNetwork_Read_Line(ZPNETWORK connection, char* buffer, int length, int timeout) {
  if (length < 1) return -1;
  String line;
  if (connection->ReadLine(line, timeout, kLine) < 0) {
    buffer[0] = '\0';
    return -1;
  }
  const size_t room = static_cast<size_t>(length) - 1;
  const size_t copied = line.data ? strnlen(line.data, static_cast<size_t>(line.length)) : 0;
  const size_t used = copied < room ? copied : room;
  if (used > 0) memcpy(buffer, line.data, used);
  // As strncpy does: nothing of an older line stays in the buffer.
  memset(buffer + used, '\0', static_cast<size_t>(length) - used);
  return static_cast<int>(used);
}
int zpNetwork_Write(ZPNETWORK connection, const char* bytes, int length, int timeout) {
  return connection->Write(bytes, length, timeout);
}
void zpNetwork_Close(ZPNETWORK connection) {
  delete connection;
}
const char* zpNetwork_Error(ZPPROGRAM program, ZPNETWORK connection, int* length) {
  const String& text = connection ? connection->error() : Network(program)->error();
  if (length) *length = text.length;
  return text.data;
}

// --- Responses -----------------------------------------------------------------------------------

ZPHTTPRESPONSE zpNetwork_HTTP_Request(ZPPROGRAM program, const char* url, const char* method,
                                      const char* body, const char* content_type, int body_length,
                                      const char* certificate_file, const char* certificate_data,
                                      const char* certificate_type, const char* password,
                                      const char* extra_headers, int extra_headers_length,
                                      double http_version, int timeout) {
  NetworkManager* const network = Network(program);
  std::unique_ptr<NetworkConnection> connection(network->OpenURL(
      method, url, body, content_type, body_length, certificate_file, certificate_data,
      certificate_type, password, extra_headers, extra_headers_length, http_version, timeout));
  if (!connection) return nullptr;
  auto response = std::make_unique<HTTPResponseStream>(connection.get(), timeout);
  if (!response->Read_Headers()) {
    network->Error(response->error);
    return nullptr;
  }
  (void)connection.release();
  return response.release();
}
int zpHTTPResponse_Status_Code(ZPHTTPRESPONSE response) {
  return response->status;
}
int zpHTTPResponse_Content_Length(ZPHTTPRESPONSE response) {
  return response->content_length;
}
int zpHTTPResponse_Read(ZPHTTPRESPONSE response, char* buffer, int length) {
  return response->Read(buffer, length);
}
void zpHTTPResponse_Close(ZPHTTPRESPONSE response) {
  if (!response) return;
  response->Close();
  delete response;
}
const char* zpHTTPResponse_Error(ZPHTTPRESPONSE response, int* length) {
  if (length) *length = response->error.length;
  return response->error.data;
}

#include "api/zeph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "base/systems/unix/UNIXNetworkManager.h"
#include "tests/api/ProgramFixture.h"
#include "tests/support/ListeningPeer.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr int kSeconds = 10;

class zpNetwork : public ProgramFixture {
 protected:
  zpNetwork() : network(&application) { application.SetNetworkManager(&network); }

  // Runs the body inside a script.
  void Inside(std::function<void(ZPPROGRAM)> body) {
    EXPECT_EQ(Call([&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) { body(program); }), 1);
  }
  static std::string Error(ZPPROGRAM program, ZPNETWORK connection = nullptr) {
    int length = -1;
    const char* text = zpNetwork_Error(program, connection, &length);
    EXPECT_EQ(zpNetwork_Error(program, connection, nullptr), text);
    EXPECT_STREQ(zeph_network_error(program, connection), text ? text : "");
    return text ? std::string(text, static_cast<size_t>(length)) : "";
  }
  static std::string Line(ZPNETWORK connection, int length) {
    char buffer[64];
    memset(buffer, '#', sizeof buffer);
    const int count = zpNetwork_Read_Line(connection, buffer, length, kSeconds);
    if (count < 0) return "(failed)";
    EXPECT_EQ(strlen(buffer), static_cast<size_t>(count));
    EXPECT_EQ(buffer[length], '#');
    return buffer;
  }
  static std::string Url(const ListeningPeer& peer, const char* path) {
    return "http://127.0.0.1:" + std::to_string(peer.port()) + path;
  }

  UNIXNetworkManager network;
};

TEST_F(zpNetwork, TellsAddressesFromNames) {
  Inside([](ZPPROGRAM program) {
    EXPECT_EQ(zpNetwork_Is_IP_Address(program, "127.0.0.1"), 1);
    EXPECT_EQ(zpNetwork_Is_IP_Address(program, "::1"), 1);
    EXPECT_EQ(zpNetwork_Is_IP_Address(program, "localhost"), 0);
    EXPECT_EQ(zeph_network_isipaddress(program, "127.0.0.1"), 1);
    EXPECT_EQ(zeph_network_isipaddress(program, "name"), 0);
  });
}

TEST_F(zpNetwork, WritesAnAddressIfThereIsRoom) {
  Inside([](ZPPROGRAM program) {
    char buffer[16];
    EXPECT_EQ(zpNetwork_Get_Host_Address(program, "127.0.0.1", buffer, 16), 1);
    EXPECT_STREQ(buffer, "127.0.0.1");
    EXPECT_EQ(zeph_network_gethostaddress(program, "127.0.0.1", buffer, 10), 1);
    EXPECT_STREQ(buffer, "127.0.0.1");
    buffer[0] = 'x';
    for (int size : {9, 1, 0, -1}) {
      EXPECT_EQ(zpNetwork_Get_Host_Address(program, "127.0.0.1", buffer, size), -1);
      EXPECT_EQ(Error(program), "The buffer is too small for the address");
    }
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(zpNetwork_Get_Host_Address(program, "no such host", buffer, 16), -1);
    EXPECT_EQ(Error(program), "Error looking up 'no such host'");
  });
}

TEST_F(zpNetwork, ConnectionsReadAndWrite) {
  std::string received;
  ListeningPeer peer([&](ListeningPeer::Connection& connection) {
    received = connection.Receive(6);
    connection.Send("bytes");
  });
  Inside([&](ZPPROGRAM program) {
    ZPNETWORK connection = zpNetwork_Connect(program, "127.0.0.1", peer.port(), kSeconds);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(zpNetwork_Write(connection, "he\0llo", 6, kSeconds), 6);
    char buffer[16];
    int count = 0;
    for (int part; (part = zpNetwork_Read(connection, buffer + count, 16 - count, kSeconds)) > 0;) {
      count += part;
    }
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(count)), "bytes");
    zpNetwork_Close(connection);
  });
  EXPECT_EQ(received, std::string("he\0llo", 6));
}

TEST_F(zpNetwork, AFailedConnectionGivesNullAndTheReason) {
  int port;
  {
    ListeningPeer gone([](ListeningPeer::Connection&) {});
    port = gone.port();
  }
  Inside([&](ZPPROGRAM program) {
    EXPECT_EQ(zpNetwork_Connect(program, "127.0.0.1", port, kSeconds), nullptr);
    EXPECT_THAT(Error(program), StartsWith("Error connecting to 127.0.0.1 on port "));
    EXPECT_EQ(zeph_network_connect(program, "127.0.0.1", port, kSeconds), nullptr);
    zpNetwork_Close(nullptr);
    zeph_network_close(nullptr);
  });
}

// The host of the tests has no TLS library.
TEST_F(zpNetwork, AConnectionWithoutTLSIsNotHandedOut) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) { connection.WaitForEnd(); });
  Inside([&](ZPPROGRAM program) {
    EXPECT_EQ(zpNetwork_Connect_SSL(program, "127.0.0.1", peer.port(), nullptr, nullptr, nullptr,
                                    nullptr, kSeconds),
              nullptr);
    EXPECT_EQ(zpNetwork_Connect_SSL(program, "no such host", peer.port(), nullptr, nullptr, nullptr,
                                    nullptr, kSeconds),
              nullptr);
    EXPECT_EQ(Error(program), "Error looking up 'no such host'");
  });
}

TEST_F(zpNetwork, LinesAreCutToTheBufferAndTerminated) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) {
    connection.Send("first\r\nsecond line\nthird\n" + std::string("a\0b\n", 4) +
                    std::string(2000, 'l') + "\nx\nlast");
  });
  Inside([&](ZPPROGRAM program) {
    ZPNETWORK connection = zeph_network_connect(program, "127.0.0.1", peer.port(), kSeconds);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(Line(connection, 32), "first\r\n");
    EXPECT_EQ(Line(connection, 7), "second");
    EXPECT_EQ(Line(connection, 6), "third");
    EXPECT_EQ(Line(connection, 32), "a");
    EXPECT_EQ(Line(connection, 32), std::string(31, 'l'));
    char unused = 'u';
    for (int length : {0, -1, -100}) {
      EXPECT_EQ(zpNetwork_Read_Line(connection, &unused, length, kSeconds), -1);
    }
    EXPECT_EQ(unused, 'u');
    EXPECT_EQ(Line(connection, 1), "");
    EXPECT_EQ(zeph_network_readline(connection, &unused, 1, kSeconds), -1);
    EXPECT_EQ(unused, '\0');
    zeph_network_close(connection);
  });
}

// Up to the length that it was given, and not beyond.
TEST_F(zpNetwork, TheRestOfALinesBufferIsNULs) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) { connection.Send("one\n"); });
  Inside([&](ZPPROGRAM program) {
    ZPNETWORK connection = zpNetwork_Connect(program, "127.0.0.1", peer.port(), kSeconds);
    ASSERT_NE(connection, nullptr);
    char buffer[12];
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(zpNetwork_Read_Line(connection, buffer, 10, kSeconds), 4);
    EXPECT_EQ(std::string(buffer, 12), std::string("one\n\0\0\0\0\0\0##", 12));
    zpNetwork_Close(connection);
  });
}

TEST_F(zpNetwork, UrlsAreRequestedWithVersionOneDotZero) {
  std::string request;
  ListeningPeer peer([&](ListeningPeer::Connection& connection) {
    while (request.find("\r\n\r\nbody") == std::string::npos) request += connection.Receive(1);
    connection.Send("HTTP/1.0 200 OK\r\n\r\ncontent");
  });
  Inside([&](ZPPROGRAM program) {
    ZPNETWORK connection = zpNetwork_Open_URL(program, Url(peer, "/a?b=c").c_str(), "POST",
                                              "body and more", "text/plain", 4, nullptr, nullptr,
                                              nullptr, nullptr, "X: y\r\n", -1, kSeconds);
    ASSERT_NE(connection, nullptr) << Error(program);
    EXPECT_EQ(Line(connection, 32), "HTTP/1.0 200 OK\r\n");
    zpNetwork_Close(connection);
  });
  EXPECT_THAT(request, StartsWith("POST /a?b=c HTTP/1.0\r\n"));
  EXPECT_THAT(request, HasSubstr("Content-Type: text/plain\r\nContent-Length: 4\r\nX: y\r\n"));
}

TEST_F(zpNetwork, OlderUrlsHaveFewerArguments) {
  std::string request;
  ListeningPeer peer([&](ListeningPeer::Connection& connection) {
    while (request.find("\r\n\r\n") == std::string::npos) request += connection.Receive(1);
    connection.Send("HTTP/1.0 204\r\n\r\n");
  });
  Inside([&](ZPPROGRAM program) {
    ZPNETWORK connection =
        zeph_network_openurl(program, Url(peer, "/").c_str(), "GET", nullptr, nullptr, 0, kSeconds);
    ASSERT_NE(connection, nullptr);
    char buffer[5];
    EXPECT_EQ(zeph_network_read(connection, buffer, 4, kSeconds), 4);
    EXPECT_EQ(std::string(buffer, 4), "HTTP");
    EXPECT_EQ(zeph_network_write(connection, "", 0, kSeconds), 0);
    zeph_network_close(connection);
    EXPECT_EQ(zeph_network_openurl(program, "http:/x", "GET", nullptr, nullptr, 0, kSeconds),
              nullptr);
    EXPECT_EQ(Error(program), "Malformed URL");
  });
  EXPECT_THAT(request, StartsWith("GET / HTTP/1.0\r\n"));
}

TEST_F(zpNetwork, ResponsesHaveTheirHeadRead) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) {
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) request += connection.Receive(1);
    connection.Send("HTTP/1.1 404 None\r\nContent-Length: 7\r\n\r\ncontentmore");
  });
  Inside([&](ZPPROGRAM program) {
    ZPHTTPRESPONSE response =
        zpNetwork_HTTP_Request(program, Url(peer, "/").c_str(), "GET", nullptr, nullptr, 0, nullptr,
                               nullptr, nullptr, nullptr, nullptr, 0, 1.1, kSeconds);
    ASSERT_NE(response, nullptr) << Error(program);
    EXPECT_EQ(zpHTTPResponse_Status_Code(response), 404);
    EXPECT_EQ(zpHTTPResponse_Content_Length(response), 7);
    char buffer[32];
    std::string body;
    for (int part; (part = zpHTTPResponse_Read(response, buffer, 32)) > 0;) {
      body.append(buffer, static_cast<size_t>(part));
    }
    EXPECT_EQ(body, "content");
    int length = -1;
    zpHTTPResponse_Error(response, &length);
    EXPECT_EQ(length, 0);
    zpHTTPResponse_Close(response);
    zpHTTPResponse_Close(nullptr);
  });
}

TEST_F(zpNetwork, AResponseThatFailsInTheMiddleSaysWhy) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) {
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) request += connection.Receive(1);
    connection.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nxyz");
  });
  Inside([&](ZPPROGRAM program) {
    ZPHTTPRESPONSE response =
        zpNetwork_HTTP_Request(program, Url(peer, "/").c_str(), "GET", nullptr, nullptr, 0, nullptr,
                               nullptr, nullptr, nullptr, nullptr, 0, 1.1, kSeconds);
    ASSERT_NE(response, nullptr) << Error(program);
    char buffer[8];
    EXPECT_EQ(zpHTTPResponse_Read(response, buffer, 8), -1);
    EXPECT_STREQ(zpHTTPResponse_Error(response, nullptr), "Invalid chunk terminator");
    zpHTTPResponse_Close(response);
  });
}

TEST_F(zpNetwork, AResponseWithoutAHeadIsNone) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) {
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) request += connection.Receive(1);
    connection.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n-5\r\n");
  });
  Inside([&](ZPPROGRAM program) {
    EXPECT_EQ(zpNetwork_HTTP_Request(program, Url(peer, "/").c_str(), "GET", nullptr, nullptr, 0,
                                     nullptr, nullptr, nullptr, nullptr, nullptr, 0, 1.1, kSeconds),
              nullptr);
    EXPECT_EQ(Error(program), "Invalid chunk size");
    EXPECT_EQ(zpNetwork_HTTP_Request(program, "ftp://h/x", "GET", nullptr, nullptr, 0, nullptr,
                                     nullptr, nullptr, nullptr, nullptr, 0, 1.1, kSeconds),
              nullptr);
    EXPECT_EQ(Error(program), "Unsupported protocol 'ftp'");
  });
}

}  // namespace

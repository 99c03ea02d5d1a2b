// The client of a mail server: replies, commands, extensions and authentication.

#include "base/network/SMTPService.h"

#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "base/network/SMTPOutput.h"
#include "tests/support/MailDialogue.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/SMTPModel.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Bytes(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

class SMTPClient : public testing::Test {
 protected:
  SMTPClient() {
    application.SetNetworkManager(&manager);
    application.SetOutput(&page);
  }

  SMTPService& Make(unsigned flags = 0, const char* user = "", const char* password = "",
                    int port = 25) {
    char host[] = "h";
    int own = 0;
    service = std::make_unique<SMTPService>(&application, nullptr, host, 1, 2, &own, port, flags,
                                            user, password, 30);
    return *service;
  }
  // Connects; the greeting is in front of the replies.
  bool Connect(unsigned flags, const char* user, const char* password,
               std::vector<std::string> replies) {
    replies.insert(replies.begin(), "220 hi");
    service.reset();
    server = MailServer();
    server.Says(replies);
    return Make(flags, user, password).SMTP_Connect(false);
  }
  // A service with a connection, whose server says these lines.
  SMTPService& Connected(const std::vector<std::string>& replies, unsigned flags = 0) {
    service.reset();
    server = MailServer();
    server.Says({"220 hi", "250 ok"});
    EXPECT_TRUE(Make(flags).SMTP_Connect(false));
    server.transcript.clear();
    server.waits.clear();
    server.Says(replies);
    return *service;
  }
  std::string Error() { return Bytes(service->error()); }

  MailServer server;
  TestApplication application;
  RecordingOutput page;
  MailServerManager manager{&application, &server};
  std::unique_ptr<SMTPService> service;
};

TEST_F(SMTPClient, ALineOfAReplyIsTakenApart) {
  const struct {
    std::string line;
    int code;
    const char* text;
    bool more;
  } cases[] = {
      {"250 ok\r\n", 250, "ok", false},
      {"250-ok\r\n", 250, "ok", true},
      {"250\r\n", 250, "", false},
      {"250", 250, "", false},
      {"250-", 250, "", true},
      {"250-\r\n", 250, "", true},
      {"250 \t several  words \r\n", 250, "several  words", false},
      {"250xyz\r\n", 250, "yz", false},
      {"12\n", 12, "", false},
      {"2x0 y\r\n", 2, "y", false},
      {"abc d\r\n", 0, "d", false},
      {"-25 d\r\n", 0, "d", false},
      {"\xFF\xFF\xFF\xFF\xFF", 0, "\xFF", false},
      {std::string("250 a\0b\r\n", 9), 250, "a", false},
      {std::string("\0\0\0", 3), 0, "", false},
  };
  Make();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    int code = -1;
    String text;
    bool more = !c.more;
    const String line(c.line.data(), static_cast<int>(c.line.size()));
    EXPECT_TRUE(service->Parse_Status(line, &code, &text, &more));
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(Bytes(text), c.text);
    EXPECT_EQ(more, c.more);
    EXPECT_TRUE(service->Parse_Status(line, nullptr, nullptr, nullptr));
  }
  EXPECT_EQ(Error(), "(null)");
}

TEST_F(SMTPClient, ALineOfLessThanThreeBytesIsNoReply) {
  Make();
  for (const char* line : {"", "2", "25", "\r\n"}) {
    int code = 7;
    EXPECT_FALSE(service->Parse_Status(line, &code, nullptr, nullptr));
    EXPECT_EQ(code, 7);
    EXPECT_EQ(Error(), "Failed to read SMTP status");
  }
  EXPECT_FALSE(service->Parse_Status(String(), nullptr, nullptr, nullptr));
}

TEST_F(SMTPClient, FiveCodesAreGoodAtEveryStage) {
  for (int code = 0; code < 1000; code++) {
    char line[16];
    snprintf(line, sizeof line, "%03d text", code);
    const bool good = code == 220 || code == 221 || code == 250 || code == 251 || code == 354;
    EXPECT_EQ(Connected({line}).Read_Status(), good) << line;
    if (!good) {
      EXPECT_EQ(Error(), "text") << line;
    }
  }
}

TEST_F(SMTPClient, TheLastLineOfAReplyCounts) {
  EXPECT_TRUE(Connected({"500-no", "250 yes"}).Read_Status());
  EXPECT_FALSE(Connected({"250-yes", "250-yes", "500 no"}).Read_Status());
  EXPECT_EQ(Error(), "no");
  EXPECT_FALSE(Connected({"250-yes", "25"}).Read_Status());
  EXPECT_TRUE(Connected({"250-yes", "250\n"}).Read_Status());
  // An empty text is a text.
  EXPECT_FALSE(Connected({"500"}).Read_Status());
  EXPECT_EQ(Error(), "");
}

TEST_F(SMTPClient, LinesAreReadWithTheTimeoutAndAHintOf512) {
  Connected({"250-a", "250 b"});
  server.buffers.clear();
  EXPECT_TRUE(service->Read_Status());
  EXPECT_EQ(server.waits, (std::vector<int>{30, 30}));
  EXPECT_EQ(server.buffers, (std::vector<int>{512, 512}));
}

TEST_F(SMTPClient, AnExpectedLineHasItsCode) {
  String text;
  bool more;
  EXPECT_TRUE(Connected({"334-a", "250 b"}).ReadAndExpect_Status(334, &text, &more));
  EXPECT_EQ(Bytes(text), "a");
  EXPECT_TRUE(more);
  EXPECT_FALSE(service->ReadAndExpect_Status(251, &text, &more));
  EXPECT_EQ(Error(), "b");
  EXPECT_EQ(Bytes(text), "a");
  EXPECT_FALSE(more);
}

// --- Connections ---------------------------------------------------------------------------------

TEST_F(SMTPClient, WithoutUserPasswordAndFlagsItSaysHELO) {
  EXPECT_TRUE(Connect(0, "", "", {"250 ok", "221 bye"}));
  service.reset();
  EXPECT_EQ(server.transcript,
            (MailTranscript{"connect h 25 30", "S: 220 hi", "C: HELO testhost.example.org\r\n",
                            "S: 250 ok", "C: QUIT\r\n", "S: 221 bye", "close"}));
}

TEST_F(SMTPClient, WithAUserItSaysEHLOAndThePasswordMayBeEmpty) {
  EXPECT_TRUE(Connect(0, "u", "", {"250-h", "250 AUTH PLAIN", "235 ok", "221 bye"}));
  service.reset();
  EXPECT_EQ(server.transcript,
            (MailTranscript{"connect h 25 30", "S: 220 hi", "C: EHLO testhost.example.org\r\n",
                            "S: 250-h", "S: 250 AUTH PLAIN", "C: AUTH PLAIN dQB1AA==\r\n",
                            "S: 235 ok", "C: QUIT\r\n", "S: 221 bye", "close"}));
}

TEST_F(SMTPClient, WithAPasswordAloneItSaysEHLOToo) {
  EXPECT_FALSE(Connect(0, "", "p", {"250 AUTH PLAIN"}));
  EXPECT_EQ(Error(), "No supported authentication methods are allowed by the server");
  EXPECT_TRUE(Connect(0, "", "p", {"250-h", "250 AUTH PLAIN", "235 ok"}));
  EXPECT_EQ(server.transcript.at(5), "C: AUTH PLAIN AABw\r\n");
}

TEST_F(SMTPClient, ARefusedEHLOIsFinal) {
  EXPECT_FALSE(Connect(0, "u", "p", {"502 what", "221 bye"}));
  EXPECT_EQ(Error(), "what");
  service.reset();
  EXPECT_EQ(server.transcript,
            (MailTranscript{"connect h 25 30", "S: 220 hi", "C: EHLO testhost.example.org\r\n",
                            "S: 502 what", "C: QUIT\r\n", "S: 221 bye", "close"}));
}

TEST_F(SMTPClient, AServerThatCannotBeReachedIsNamed) {
  server.refuses = true;
  EXPECT_FALSE(Make().SMTP_Connect(false));
  EXPECT_EQ(Error(), "Error connecting to 'h': No connection");
  EXPECT_FALSE(Make().Connect());
  EXPECT_EQ(Error(), "Error connecting to 'h': No connection");
  EXPECT_EQ(service->Connection(), nullptr);
  service.reset();
  EXPECT_EQ(server.transcript, (MailTranscript{"connect h 25 30", "connect h 25 30"}));
}

// The low bits of such a number are another port.
TEST_F(SMTPClient, APortIsANumberOf16Bits) {
  for (const int port : {-1, 65536, 65561, -65511, 2147483647}) {
    EXPECT_FALSE(Make(0, "", "", port).SMTP_Connect(false));
    EXPECT_EQ(Error(), "Error connecting to 'h': Invalid port");
  }
  EXPECT_TRUE(server.transcript.empty());
  server.Says({"220 hi", "250 ok"});
  EXPECT_TRUE(Make(0, "", "", 65535).SMTP_Connect(false));
  EXPECT_EQ(server.transcript[0], "connect h 65535 30");
}

TEST_F(SMTPClient, TheBaseConnectReadsTheGreeting) {
  server.Says({"220-hi", "220 there"});
  EXPECT_TRUE(Make().Connect());
  EXPECT_NE(service->Connection(), nullptr);
  // An older connection is closed.
  server.Says({"554 no"});
  EXPECT_FALSE(service->Connect());
  EXPECT_EQ(server.transcript, (MailTranscript{"connect h 25 30", "S: 220-hi", "S: 220 there",
                                               "close", "connect h 25 30", "S: 554 no"}));
}

TEST_F(SMTPClient, AnOwnedHostIsAdopted) {
  char* const host = new char[6]{'h', '.', 'o', 'r', 'g', '\0'};
  int own = 1;
  SMTPService adopting(&application, nullptr, host, 5, 6, &own, 26, 0, "", "", 9);
  EXPECT_EQ(own, 0);
  server.refuses = true;
  EXPECT_FALSE(adopting.SMTP_Connect(false));
  EXPECT_EQ(server.transcript, MailTranscript{"connect h.org 26 9"});
}

TEST_F(SMTPClient, TLSFromTheStartComesBeforeTheGreeting) {
  EXPECT_TRUE(Connect(SMTPService::TLS, "", "", {"250 ok"}));
  EXPECT_EQ(server.transcript, (MailTranscript{"connect h 25 30", "tls h 30", "S: 220 hi",
                                               "C: HELO testhost.example.org\r\n", "S: 250 ok"}));
}

TEST_F(SMTPClient, STARTTLSAsksForTheExtensionsAgain) {
  EXPECT_TRUE(Connect(SMTPService::StartTLS, "u", "p",
                      {"250-h", "250-AUTH DIGEST-MD5", "250 STARTTLS", "220 go", "250-h",
                       "250 AUTH PLAIN", "235 ok"}));
  EXPECT_EQ(
      server.transcript,
      (MailTranscript{"connect h 25 30", "S: 220 hi", "C: EHLO testhost.example.org\r\n",
                      "S: 250-h", "S: 250-AUTH DIGEST-MD5", "S: 250 STARTTLS", "C: STARTTLS\r\n",
                      "S: 220 go", "tls h 30", "C: EHLO testhost.example.org\r\n", "S: 250-h",
                      "S: 250 AUTH PLAIN", "C: AUTH PLAIN dQB1AHA=\r\n", "S: 235 ok"}));
}

TEST_F(SMTPClient, WhatWasOfferedBeforeSTARTTLSDoesNotCount) {
  EXPECT_FALSE(Connect(SMTPService::StartTLS, "u", "p",
                       {"250-h", "250-AUTH PLAIN", "250 STARTTLS", "220 go", "250 h"}));
  EXPECT_EQ(Error(), "No supported authentication methods are allowed by the server");
}

TEST_F(SMTPClient, STARTTLSNeedsNoUser) {
  EXPECT_TRUE(Connect(SMTPService::StartTLS, "", "", {"250-h", "250 STARTTLS", "220 go", "250 h"}));
}

TEST_F(SMTPClient, AServerWithoutSTARTTLSIsRefused) {
  EXPECT_FALSE(Connect(SMTPService::StartTLS, "u", "p", {"250-h", "250 AUTH PLAIN"}));
  EXPECT_EQ(Error(), "Server does not support STARTTLS");
  EXPECT_EQ(server.Written(), "EHLO testhost.example.org\r\n");
}

// The server is not the one that was asked for, so it gets nothing more, not even QUIT.
TEST_F(SMTPClient, AfterAFailedHandshakeNothingIsSent) {
  for (const unsigned flags : {SMTPService::TLS, SMTPService::StartTLS}) {
    server = MailServer();
    server.refuses_tls = true;
    server.Says({"220 hi", "250-h", "250-STARTTLS", "250 AUTH PLAIN", "220 go"});
    EXPECT_FALSE(Make(flags, "u", "secret").SMTP_Connect(false));
    EXPECT_EQ(Error(), "No TLS");
    EXPECT_EQ(service->Connection(), nullptr);
    service.reset();
    EXPECT_EQ(server.transcript.back(), "close");
    EXPECT_EQ(server.Written(),
              flags == SMTPService::TLS ? "" : "EHLO testhost.example.org\r\nSTARTTLS\r\n");
  }
}

TEST_F(SMTPClient, WithoutAConnectionNothingWorks) {
  Make();
  MailServerConnection other(&server, &application);
  SMTPOutput output(&page, &other, 100, 5);
  unsigned capabilities;
  EXPECT_FALSE(service->Read_Status());
  EXPECT_FALSE(service->ESMTP_Handshake(&capabilities));
  EXPECT_FALSE(service->Add_Recipient("a", -1));
  EXPECT_FALSE(service->Start("a", -1, "b", -1, "", 0, "", 0));
  EXPECT_FALSE(service->Finish(&output));
  service->Disconnect();
  EXPECT_TRUE(server.transcript.empty());
}

// --- Extensions ----------------------------------------------------------------------------------

TEST_F(SMTPClient, TheOffersOfAServerAreRecognised) {
  enum : unsigned { L = 0x100, P = 0x200, C = 0x400, D = 0x800 };
  const struct {
    std::vector<std::string> lines;
    unsigned offers;
  } cases[] = {
      {{"250 h"}, 0},
      {{"250 STARTTLS"}, 0},  // the first line is a greeting
      {{"250-h", "250 STARTTLS"}, 1},
      {{"250-h", "250 STARTTLS "}, 1},
      {{"250-h", "250 starttls"}, 0},
      {{"250-h", "250 STARTTLS now"}, 0},
      {{"250-h", "250-SIZE 5", "250-STARTTLS", "250 HELP"}, 1},
      {{"250-h", "250 AUTH LOGIN PLAIN"}, L | P},
      {{"250-h", "250 AUTH LOGIN PLAIN CRAM-MD5 DIGEST-MD5"}, L | P | C | D},
      {{"250-h", "250 AUTH  DIGEST-MD5   LOGIN"}, D | L},
      {{"250-h", "250 AUTH login Plain"}, 0},
      {{"250-h", "250 auth LOGIN"}, 0},
      {{"250-h", "250 AUTH=LOGIN PLAIN"}, 0},
      {{"250-h", "250 AUTH"}, 0},
      {{"250-h", "250 AUTH LOGINS XLOGIN GSSAPI"}, 0},
      {{"250-h", "250-AUTH LOGIN", "250 AUTH CRAM-MD5"}, L | C},
      {{"250-h", "250 XAUTH LOGIN"}, 0},
      {{"250-h", "250-AUTH LOGIN", "250-STARTTLS", "250"}, L | 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines.back());
    unsigned offers = 77;
    EXPECT_TRUE(Connected(c.lines).ESMTP_Handshake(&offers));
    EXPECT_EQ(offers, c.offers);
    EXPECT_TRUE(server.replies.empty());
  }
  unsigned offers = 77;
  EXPECT_FALSE(Connected({"250-h", "251 AUTH LOGIN"}).ESMTP_Handshake(&offers));
  EXPECT_EQ(Error(), "AUTH LOGIN");
}

TEST_F(SMTPClient, TheStrongestOfferIsUsed) {
  const struct {
    const char* offer;
    const char* command;
  } cases[] = {
      {"LOGIN", "AUTH LOGIN\r\n"},
      {"LOGIN PLAIN", "AUTH PLAIN dQB1AHA=\r\n"},
      {"CRAM-MD5 PLAIN LOGIN", "AUTH CRAM-MD5\r\n"},
      {"PLAIN DIGEST-MD5 CRAM-MD5 LOGIN", "AUTH DIGEST-MD5\r\n"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(Connect(0, "u", "p", {"250-h", std::string("250 AUTH ") + c.offer, "535 no"}));
    EXPECT_EQ(Error(), "no");
    EXPECT_EQ(server.transcript.at(5), std::string("C: ") + c.command);
  }
}

// --- Authentication ------------------------------------------------------------------------------

TEST_F(SMTPClient, LOGINAsksForBoth) {
  const struct {
    const char* user_prompt;  // base64
    const char* password_prompt;
  } cases[] = {
      {"VXNlcm5hbWU6", "UGFzc3dvcmQ6"},  // "Username:", "Password:"
      {"VXNlciBOYW1l", "UGFzc3dvcmQ="},  // "User Name", "Password"
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(Connect(0, "user", "secret",
                        {"250-h", "250 AUTH LOGIN", std::string("334 ") + c.user_prompt,
                         std::string("334 ") + c.password_prompt, "235 ok"}))
        << Error();
    EXPECT_EQ(server.Written(),
              "EHLO testhost.example.org\r\nAUTH LOGIN\r\ndXNlcg==\r\nc2VjcmV0\r\n");
  }
}

TEST_F(SMTPClient, LOGINKnowsTwoPromptsForEach) {
  const std::string user = "334 VXNlcm5hbWU6";
  // "username:", "Username", "User Name" with a NUL, nothing, no base64
  for (const char* prompt : {"dXNlcm5hbWU6", "VXNlcm5hbWU=", "VXNlciBOYW1lAA==", "", "****"}) {
    EXPECT_FALSE(
        Connect(0, "user", "secret", {"250-h", "250 AUTH LOGIN", std::string("334 ") + prompt}));
    EXPECT_EQ(Error(), "Invalid AUTH LOGIN handshake");
    EXPECT_EQ(server.Written(), "EHLO testhost.example.org\r\nAUTH LOGIN\r\n");
    EXPECT_FALSE(Connect(0, "user", "secret",
                         {"250-h", "250 AUTH LOGIN", user, std::string("334 ") + prompt}));
    EXPECT_EQ(Error(), "Invalid AUTH LOGIN handshake");
    EXPECT_EQ(server.Written(), "EHLO testhost.example.org\r\nAUTH LOGIN\r\ndXNlcg==\r\n");
  }
}

TEST_F(SMTPClient, AnEmptyPasswordIsAnEmptyLine) {
  EXPECT_TRUE(
      Connect(0, "user", "",
              {"250-h", "250 AUTH LOGIN", "334 VXNlcm5hbWU6", "334 UGFzc3dvcmQ6", "235 ok"}));
  EXPECT_TRUE(server.Written().ends_with("dXNlcg==\r\n\r\n"));
}

// The example of RFC 2195.
TEST_F(SMTPClient, CRAMSendsTheDigestOfTheChallenge) {
  EXPECT_TRUE(Connect(0, "tim", "tanstaaftanstaaf",
                      {"250-h", "250 AUTH CRAM-MD5",
                       "334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+", "235 ok"}));
  EXPECT_EQ(server.Written(),
            "EHLO testhost.example.org\r\nAUTH CRAM-MD5\r\n"
            "dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\r\n");
}

TEST_F(SMTPClient, AnAuthenticationEndsWith235) {
  for (const char* method : {"PLAIN", "CRAM-MD5"}) {
    for (const char* reply : {"250 ok", "334 ok", "535 ok", "220 ok"}) {
      const bool plain = method[0] == 'P';
      EXPECT_FALSE(Connect(0, "u", "p",
                           {"250-h", std::string("250 AUTH ") + method, plain ? reply : "334 PGE+",
                            plain ? "" : reply}));
      EXPECT_EQ(Error(), "ok");
    }
  }
}

// Each expectation is a line, so the second line of a reply is taken for the next one.
TEST_F(SMTPClient, AReplyToAUTHIsOneLine) {
  EXPECT_TRUE(Connect(0, "u", "p", {"250-h", "250 AUTH PLAIN", "235-ok", "535 too late"}));
  EXPECT_FALSE(service->Start("a", -1, "b", -1, "", 0, "", 0));
  EXPECT_EQ(Error(), "too late");
}

// --- The mail ------------------------------------------------------------------------------------

TEST_F(SMTPClient, StartSendsEnvelopeAndHeader) {
  Connected({"250 a", "250 b", "250 c", "250 d", "354 e"});
  EXPECT_TRUE(service->Start("a@x,b@x", -1, "f@x", -1, "<c@x>", -1, "Subject", -1));
  EXPECT_EQ(server.transcript,
            (MailTranscript{"C: MAIL FROM: f@x\r\n", "S: 250 a", "C: RCPT TO: a@x\r\n", "S: 250 b",
                            "C: RCPT TO: b@x\r\n", "S: 250 c", "C: RCPT TO: <c@x>\r\n", "S: 250 d",
                            "C: DATA\r\n", "S: 354 e",
                            "C: Date: Sat, 21 Nov 2026 10:00:00 +0100\r\nFrom: f@x\r\n"
                            "To: a@x,b@x\r\nCC: <c@x>\r\nX-Mailer: Zeph v5.29 (0)\r\n"
                            "Subject: Subject\r\n"}));
}

TEST_F(SMTPClient, WithoutCopiesThereIsNoSuchFieldAndNoSuchRecipient) {
  Connected({"250 a", "250 b", "354 e"});
  EXPECT_TRUE(service->Start("a@x", -1, "f@x", -1, nullptr, 0, "", 0));
  EXPECT_EQ(server.Written(),
            "MAIL FROM: f@x\r\nRCPT TO: a@x\r\nDATA\r\n"
            "Date: Sat, 21 Nov 2026 10:00:00 +0100\r\nFrom: f@x\r\nTo: a@x\r\n"
            "X-Mailer: Zeph v5.29 (0)\r\nSubject: \r\n");
}

TEST_F(SMTPClient, AHostWithoutUserNamesNone) {
  class Nameless : public TestApplication {
   public:
    const char* GetUserID() override { return id; }
    const char* id = nullptr;
  };
  for (const char* id : {static_cast<const char*>(nullptr), ""}) {
    Nameless host;
    host.id = id;
    MailServer other;
    MailServerManager network(&host, &other);
    host.SetNetworkManager(&network);
    other.Says({"220 hi", "250 ok"});
    char name[] = "h";
    int own = 0;
    SMTPService client(&host, nullptr, name, 1, 2, &own, 25, 0, "", "", 1);
    EXPECT_TRUE(client.SMTP_Connect(false));
    EXPECT_TRUE(client.SendHeader("", 0, "", 0, "", 0, "", 0));
    EXPECT_NE(other.Written().find("X-Mailer: Zeph v5.29\r\n"), std::string::npos);
  }
}

TEST_F(SMTPClient, WithTheFlagTheScriptWritesTheHeader) {
  Connected({"250 a", "250 b", "354 e"}, SMTPService::NoHeaders);
  EXPECT_TRUE(service->Start("a@x", -1, "f@x", -1, "", 0, "Subject", -1));
  EXPECT_EQ(server.Written(), "MAIL FROM: f@x\r\nRCPT TO: a@x\r\nDATA\r\n");
}

TEST_F(SMTPClient, EachPieceOfAListIsARecipientAsItIs) {
  const struct {
    const char* list;
    std::vector<std::string> recipients;
  } cases[] = {
      {"a", {"a"}},      {"a,b", {"a", "b"}},         {"", {""}},        {",", {"", ""}},
      {"a,", {"a", ""}}, {" a , b ", {" a ", " b "}}, {",a", {"", "a"}}, {"a,,b", {"a", "", "b"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.list);
    Connected(std::vector<std::string>(c.recipients.size(), "250 ok"));
    EXPECT_TRUE(service->Add_Recipients(c.list, -1));
    std::string expected;
    for (const std::string& recipient : c.recipients) expected += "RCPT TO: " + recipient + "\r\n";
    EXPECT_EQ(server.Written(), expected);
  }
}

TEST_F(SMTPClient, ARefusedRecipientEndsTheList) {
  EXPECT_FALSE(Connected({"250 ok", "550 nobody", "250 ok"}).Add_Recipients("a,b,c", -1));
  EXPECT_EQ(Error(), "nobody");
  EXPECT_EQ(server.Written(), "RCPT TO: a\r\nRCPT TO: b\r\n");
}

TEST_F(SMTPClient, AnAddressCannotBecomeACommand) {
  const std::string bad[] = {"a\r\nRCPT TO: b", "a\n", "\ra", std::string("a\0b", 3), "a,b\r,c"};
  for (const std::string& address : bad) {
    const int length = static_cast<int>(address.size());
    for (int place = 0; place < 4; place++) {
      Connected(std::vector<std::string>(9, "250 ok"));
      bool accepted;
      if (place == 0) {
        accepted = service->Start(address.data(), length, "f", 1, "c", 1, "s", 1);
      } else if (place == 1) {
        accepted = service->Start("t", 1, address.data(), length, "c", 1, "s", 1);
      } else if (place == 2) {
        accepted = service->Start("t", 1, "f", 1, address.data(), length, "s", 1);
      } else {
        accepted = service->Add_Recipient(address.data(), length);
      }
      EXPECT_FALSE(accepted);
      EXPECT_EQ(Error(), "An address must not contain line breaks or NUL bytes");
      EXPECT_TRUE(server.transcript.empty());
    }
  }
}

// Such a line would end the mail, and the next one would be a command.
TEST_F(SMTPClient, ASubjectCannotEndTheMail) {
  const struct {
    const char* subject;
    bool good;
  } cases[] = {
      {"", true},         {".", true},        {"a\r\n b", true},  {"a\r\n.b", true},
      {"a\r\n..", true},  {"a.", true},       {"a\r\n.", false},  {"a\n.\nb", false},
      {"a\r.\rb", false}, {"\n.", false},     {".\n.\n", false},  {"a\r\n.\r\nQUIT\r\n", false},
      {"a\n\n.", false},  {"a\n .\nb", true}, {"a\n.\rb", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.subject);
    Connected({"250 a", "250 b", "354 e"});
    EXPECT_EQ(service->Start("t", 1, "f", 1, "", 0, c.subject, -1), c.good);
    if (c.good) {
      EXPECT_TRUE(server.Written().ends_with("Subject: " + std::string(c.subject) + "\r\n"));
    } else {
      EXPECT_EQ(Error(), "A subject must not contain a line of a single dot");
      EXPECT_TRUE(server.transcript.empty());
    }
  }
}

TEST_F(SMTPClient, FinishEndsTheMailAndReadsTheReply) {
  for (const bool taken : {true, false}) {
    Connected({taken ? "250 ok" : "554 spam"});
    SMTPOutput output(&page, service->Connection(), 100, 5);
    output.Write("text", 4);
    EXPECT_EQ(service->Finish(&output), taken);
    EXPECT_EQ(server.Written(), "text\r\n.\r\n");
    if (!taken) {
      EXPECT_EQ(Error(), "spam");
    }
  }
}

// --- Failures ------------------------------------------------------------------------------------

TEST_F(SMTPClient, AfterAFailedReadOrWriteTheConnectionIsOnlyClosed) {
  const std::vector<std::string> replies = {
      "220 hi", "250-h", "250 AUTH CRAM-MD5", "334 PGE+", "235 ok", "250 a", "250 b", "354 c"};
  for (int failing = 1; failing <= 15; failing++) {
    SCOPED_TRACE(failing);
    server = MailServer();
    server.Says(replies);
    server.failing_operation = failing;
    const bool worked =
        Make(0, "u", "p").SMTP_Connect(false) && service->Start("t", -1, "f", -1, "", 0, "s", -1);
    EXPECT_FALSE(worked);
    const std::string& last = server.transcript.back();
    EXPECT_EQ(Error(), last == "C: " ? "Write Timeout" : "Read Timeout");
    SMTPOutput output(&page, service->Connection(), 100, 5);
    EXPECT_FALSE(service->Finish(&output));
    EXPECT_FALSE(service->Add_Recipient("x", 1));
    service.reset();
    EXPECT_EQ(server.operations, failing);
    EXPECT_EQ(server.transcript.back(), "close");
  }
}

// Lines come without a pause, so the connection never waits.
TEST_F(SMTPClient, AnEndlessReplyEndsWithTheRun) {
  for (const char* line : {"250-more", "220-more", "250-AUTH LOGIN"}) {
    server = MailServer();
    application.SetCancelled(0);
    int lines = 0;
    server.talk = [&] {
      if (++lines == 1000) application.SetCancelled(1);
      return std::string(lines == 1 ? "220 hi" : line);
    };
    EXPECT_FALSE(Make(0, line[4] == 'A' ? "u" : "", "").SMTP_Connect(false));
    EXPECT_EQ(lines, 1000);
    EXPECT_EQ(Error(), "Read Timeout");
    service.reset();
    EXPECT_EQ(server.transcript.back(), "close");
  }
  application.SetCancelled(0);
}

TEST_F(SMTPClient, AnEndlessGreetingToTheFarewellEndsToo) {
  Connected({});
  int lines = 0;
  server.talk = [&] {
    if (++lines == 10) application.SetCancelled(1);
    return std::string("221-and");
  };
  service.reset();
  EXPECT_EQ(lines, 10);
  EXPECT_EQ(server.transcript, (MailTranscript{"C: QUIT\r\n", "close"}));
  application.SetCancelled(0);
}

// Talks of a server that are put together at random.
TEST_F(SMTPClient, RandomTalksEndAsInTheModel) {
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  const char* const lines[] = {"220 hi\r\n",
                               "250 ok\r\n",
                               "250-more\r\n",
                               "250-STARTTLS\r\n",
                               "250 STARTTLS\r\n",
                               "250-AUTH LOGIN\r\n",
                               "250 AUTH PLAIN\r\n",
                               "354 go\r\n",
                               "334 VXNlcm5hbWU6\r\n",
                               "334 UGFzc3dvcmQ6\r\n",
                               "235 ok\r\n",
                               "550 no\r\n",
                               "550\n",
                               "25\n",
                               "\n",
                               "251-x\r\n",
                               "334 \r\n",
                               "250 AUTH CRAM-MD5\r\n",
                               "250 \t a \v\r\n",
                               "2 0 x\r\n"};
  // Those that are good in order, so that many talks get far.
  const char* const order[] = {"220 hi\r\n",
                               "250-h\r\n250 AUTH LOGIN\r\n",
                               "334 VXNlcm5hbWU6\r\n",
                               "334 UGFzc3dvcmQ6\r\n",
                               "235 ok\r\n",
                               "250 a\r\n",
                               "250 b\r\n",
                               "354 c\r\n",
                               "250 d\r\n",
                               "221 e\r\n"};
  int sent = 0;
  for (int round = 0; round < 20000; round++) {
    SMTPTalk talk;
    for (const char* line : order) {
      if (random() % 12 != 0) talk.server += line;
      if (random() % 12 == 0) talk.server += lines[random() % std::size(lines)];
    }
    talk.stays = random() % 2;
    talk.starttls = random() % 4 == 0;
    if (random() % 4 != 0) talk.user = "user";
    if (random() % 2) talk.password = "secret";
    ASSERT_TRUE(SameOutcome(talk)) << "seed " << seed << "\n"
                                   << talk.server << SendToTalk(talk).error;
    sent += SendToTalk(talk).sent;
  }
  EXPECT_GT(sent, 500);
}

}  // namespace

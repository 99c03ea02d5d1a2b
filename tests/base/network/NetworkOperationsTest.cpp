// The order of the virtual operations of connections and managers, which is part of their
// interface. It is read from pointers to members, which contain the offset of the slot in the
// table, plus one.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "base/network/LoggingNetworkConnection.h"
#include "base/network/POP3.h"
#include "base/systems/unix/UNIXNetworkConnection.h"
#include "base/systems/unix/UNIXNetworkManager.h"

namespace {

// The slot, counted from 0; -1 for an operation that is not virtual.
template <class Member>
int Slot(Member member) {
  std::intptr_t words[2];
  static_assert(sizeof member == sizeof words);
  memcpy(words, &member, sizeof words);
  return words[0] & 1 ? static_cast<int>((words[0] - 1) / static_cast<int>(sizeof(void*))) : -1;
}

// The destructor has the first two slots.
void ExpectInOrder(const std::vector<int>& slots, int first = 2) {
  for (size_t i = 0; i < slots.size(); i++) {
    EXPECT_EQ(slots[i], first + static_cast<int>(i)) << "operation " << i;
  }
}

using Connection = NetworkConnection;
using Manager = NetworkManager;
using WriteBytes = int (Connection::*)(const char*, int, int);
using OpenPlain = NetworkConnection* (Manager::*)(const char*, const char*, const char*,
                                                  const char*, int, const char*, const char*,
                                                  const char*, const char*, const char*, int,
                                                  double, int);

TEST(NetworkOperations, OfAConnectionKeepTheirOrder) {
  ExpectInOrder({Slot(&Connection::EstablishTLSConnection), Slot(&Connection::Server_Certificate),
                 Slot(&Connection::Read), Slot(&Connection::ReadLine),
                 Slot(static_cast<WriteBytes>(&Connection::Write)), Slot(&Connection::error),
                 Slot(&Connection::Error)});
  using UNIX = UNIXNetworkConnection;
  ExpectInOrder({Slot(&UNIX::EstablishTCPConnection), Slot(&UNIX::SSL_Read),
                 Slot(&UNIX::SSL_ReadLine), Slot(&UNIX::SSL_Write)},
                9);
  using Logging = LoggingNetworkConnection;
  ExpectInOrder({Slot(&Logging::Log_Read_Data), Slot(&Logging::Log_Read_Error),
                 Slot(&Logging::Log_Write_Data), Slot(&Logging::Log_Write_Error)},
                9);
}

TEST(NetworkOperations, OfAManagerKeepTheirOrder) {
  ExpectInOrder({Slot(&Manager::IsIPAddress),
                 Slot(&Manager::IsIPv4Address),
                 Slot(&Manager::IsIPv6Address),
                 Slot(&Manager::GetHostAddress),
                 Slot(&Manager::Connect),
                 Slot(&Manager::SSL_Connect),
                 Slot(static_cast<OpenPlain>(&Manager::OpenURL)),
                 Slot(&Manager::OpenURL_Connect),
                 Slot(&Manager::OpenURL_SendRequest),
                 Slot(&Manager::Populate_Client_Certificate),
                 Slot(&Manager::Load_Client_Certificate),
                 Slot(&Manager::Verify_Certificate_Hostname),
                 Slot(&Manager::Verify_Certificate_IP),
                 Slot(&Manager::CompareX509Hostname),
                 Slot(&Manager::CompareIPv6Addresses),
                 Slot(&Manager::ConvertIPv4ToString),
                 Slot(&Manager::ConvertIPv6ToString),
                 Slot(&Manager::SplitURL),
                 Slot(&Manager::error),
                 Slot(&Manager::Error)});
}

TEST(NetworkOperations, OfAMailboxKeepTheirOrder) {
  using StoreText = void (POP3::*)(const char*, int);
  ExpectInOrder({Slot(&POP3::Connect), Slot(&POP3::Login), Slot(&POP3::GetStat),
                 Slot(&POP3::BuildMessageList), Slot(&POP3::GetFirstMessage),
                 Slot(&POP3::GetNextMessage), Slot(&POP3::DeleteMessage), Slot(&POP3::GetMessage),
                 Slot(&POP3::SendCommand), Slot(&POP3::ReadResponses), Slot(&POP3::ProcessResponse),
                 Slot(&POP3::Disconnect), Slot(&POP3::CurrentMessageIndex), Slot(&POP3::error),
                 Slot(static_cast<StoreText>(&POP3::Error))},
                4);
}

}  // namespace

// Permissions hold for tests that root runs.

#ifndef ZEPH_TESTS_SUPPORT_OTHERUSER_H
#define ZEPH_TESTS_SUPPORT_OTHERUSER_H

#include <stdlib.h>
#include <unistd.h>

// While it exists, the process is a user without rights if it was root, and itself otherwise.
class OtherUser {
 public:
  OtherUser() : before(geteuid()) {
    const uid_t other = 65534;
    if (before == 0 && seteuid(other) != 0) abort();
  }
  ~OtherUser() {
    if (seteuid(before) != 0) abort();
  }
  OtherUser(const OtherUser&) = delete;
  OtherUser& operator=(const OtherUser&) = delete;

 private:
  uid_t before;
};

#endif

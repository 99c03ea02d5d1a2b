#include "base/core/SpareText.h"

#include <cstring>
#include <thread>

#include <gtest/gtest.h>

namespace {

// None is kept where the heap can't say how large a buffer is.
bool Keeps() {
  char* const buffer = new char[20];
  const bool is_known = BufferRoom(buffer) > 0;
  delete[] buffer;
  return is_known && SpareText::kMost > 0;
}

// Runs a test on a thread whose lists are open.
template <class Test>
void OnThread(Test test) {
  std::thread([&test] {
    FreeLists::Open();
    test();
    FreeLists::Close();
  }).join();
}

TEST(SpareText, TheNextTextThatFitsGetsTheBuffer) {
  OnThread([] {
    char* const first = SpareText::Take(20);
    memset(first, 1, 20);
    SpareText::Give(first, 20);
    char* const second = SpareText::Take(20);
    EXPECT_EQ(second == first, Keeps());
    memset(second, 2, 20);
    // It is handed out once.
    char* const third = SpareText::Take(20);
    EXPECT_NE(third, second);
    delete[] second;
    delete[] third;
  });
}

TEST(SpareText, ALongerTextGetsABufferOfItsOwn) {
  OnThread([] {
    SpareText::Give(new char[20], 20);
    char* const longer = SpareText::Take(2000);
    memset(longer, 1, 2000);
    SpareText::Give(longer, 2000);
    delete[] SpareText::Take(20);
  });
}

// A variable tells the size of its text, whatever the buffer had room for before.
TEST(SpareText, ALargeBufferIsNotKeptForTheSizeThatIsTold) {
  OnThread([] {
    char* const large = new char[1 << 20];
    SpareText::Give(large, 4);
    char* const found = SpareText::Take(4);
    EXPECT_NE(found, large);
    delete[] found;
  });
}

TEST(SpareText, TheLargerOfTwoIsKeptAndNoLargeOne) {
  OnThread([] {
    char* const large = new char[100];
    SpareText::Give(new char[20], 20);
    SpareText::Give(large, 100);
    SpareText::Give(new char[30], 30);
    SpareText::Give(new char[SpareText::kMost + 1], SpareText::kMost + 1);
    SpareText::Give(nullptr, 0);
    char* const found = SpareText::Take(100);
    EXPECT_EQ(found == large, Keeps());
    memset(found, 1, 100);
    delete[] found;
  });
}

// Leak checkers find what is not freed.
TEST(SpareText, NothingIsKeptOutsideOfTheLists) {
  std::thread([] {
    SpareText::Give(new char[20], 20);
    FreeLists::Open();
    SpareText::Give(new char[20], 20);
    FreeLists::Trim();
    SpareText::Give(new char[20], 20);
    FreeLists::Close();
    SpareText::Give(new char[20], 20);
  }).join();
}

}  // namespace

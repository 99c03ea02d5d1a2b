#include "fastcgi/RequestRoom.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/core/Sanitizers.h"
#include "fastcgi/FastCGIConnection.h"
#include "fastcgi/FastCGIThreads.h"

extern "C" {
void* request_malloc(size_t size);
void* request_realloc(void* memory, size_t size);
void request_free(void* memory);
}

namespace {

TEST(RequestRoom, BlocksAreAlignedAndApart) {
  const auto room = std::make_unique<RequestRoom>();
  std::vector<std::pair<char*, size_t>> blocks;
  for (size_t size : {0, 1, 15, 16, 17, 240, 8192, 0, 3}) {
    char* const block = static_cast<char*>(room->Take(size));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(max_align_t), 0u);
    EXPECT_TRUE(room->Has(block));
    memset(block, static_cast<int>(blocks.size()), size);
    blocks.emplace_back(block, size);
  }
  for (size_t i = 0; i < blocks.size(); i++) {
    EXPECT_EQ(std::string(blocks[i].first, blocks[i].second),
              std::string(blocks[i].second, static_cast<char>(i)));
    for (size_t other = 0; other < i; other++) EXPECT_NE(blocks[i].first, blocks[other].first);
  }
}

TEST(RequestRoom, ABlockThatDoesNotFitIsRefused) {
  const auto room = std::make_unique<RequestRoom>();
  for (size_t size : {RequestRoom::kSize, RequestRoom::kSize + 1, SIZE_MAX - 3, SIZE_MAX}) {
    EXPECT_EQ(room->Take(size), nullptr);
  }
  size_t taken = 0;
  while (room->Take(1000)) taken += 1000;
  EXPECT_GT(taken, RequestRoom::kSize - 2000);
  while (room->Take(0)) {
  }
  EXPECT_EQ(room->Take(0), nullptr);
}

TEST(RequestRoom, KnowsItsBlocks) {
  const auto room = std::make_unique<RequestRoom>();
  char outside;
  EXPECT_FALSE(room->Has(nullptr));
  EXPECT_FALSE(room->Has(&outside));
  const char* const first = static_cast<char*>(room->Take(1));
  EXPECT_TRUE(room->Has(first));
  EXPECT_FALSE(room->Has(first - 1));
  EXPECT_FALSE(room->Has(first + RequestRoom::kSize));
  EXPECT_EQ(room->SizeFrom(first), RequestRoom::kSize);
  EXPECT_EQ(room->SizeFrom(first + 100), RequestRoom::kSize - 100);
}

TEST(RequestRoom, IsEmptyAgainWhenAllBlocksAreBack) {
  const auto room = std::make_unique<RequestRoom>();
  void* const first = room->Take(RequestRoom::kSize / 2);
  ASSERT_NE(room->Take(100), nullptr);
  EXPECT_EQ(room->Take(RequestRoom::kSize / 2), nullptr);
  room->Return();
  EXPECT_EQ(room->Take(RequestRoom::kSize / 2), nullptr);
  room->Return();
  EXPECT_EQ(room->Take(RequestRoom::kSize / 2), first);
  room->Clear();
  EXPECT_EQ(room->Take(RequestRoom::kSize / 2), first);
}

// What libfcgi gets on a thread with a connection.
TEST(RequestRoom, HasTheBlocksOfLibfcgi) {
  if (kAddressSanitizer) GTEST_SKIP() << "they are blocks of the heap, so that it sees overruns";
  FastCGIThreadManager manager;
  const auto connection = std::make_unique<FastCGIConnection>(&manager);
  const std::string text(240, 'x');
  char* block = static_cast<char*>(request_malloc(text.size()));
  ASSERT_TRUE(connection->room().Has(block));
  memcpy(block, text.data(), text.size());
  // Larger ones, inside the room and outside.
  block = static_cast<char*>(request_realloc(block, 480));
  EXPECT_TRUE(connection->room().Has(block));
  EXPECT_EQ(std::string(block, text.size()), text);
  for (size_t size : {100000, 200000}) {
    block = static_cast<char*>(request_realloc(block, size));
    EXPECT_FALSE(connection->room().Has(block));
    EXPECT_EQ(std::string(block, text.size()), text);
    block[size - 1] = 'y';
  }
  request_free(block);
  request_free(nullptr);
  // The block that was moved is back.
  EXPECT_NE(connection->room().Take(RequestRoom::kSize - 16), nullptr);
}

TEST(RequestRoom, AThreadWithoutAConnectionHasNone) {
  void* block = request_malloc(100);
  ASSERT_NE(block, nullptr);
  block = request_realloc(block, 200);
  ASSERT_NE(block, nullptr);
  request_free(block);
}

}  // namespace

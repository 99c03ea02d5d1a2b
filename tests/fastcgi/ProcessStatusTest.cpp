#include "fastcgi/ProcessStatus.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "base/core/StringClass.h"
#include "fastcgi/StatusReport.h"

namespace {

TEST(ThreadStatus, KeepsTheEndOfAPathThatIsTooLong) {
  ThreadStatus status;
  EXPECT_EQ(status.Script(), "");
  status.SetScript("shop/cart.zpc", 13);
  EXPECT_EQ(status.Script(), "shop/cart.zpc");
  const std::string fits(64, 'a');
  status.SetScript(fits.data(), 64);
  EXPECT_EQ(status.Script(), fits);
  const std::string longer = fits + "b";
  status.SetScript(longer.data(), 65);
  EXPECT_EQ(status.Script(), "..." + longer.substr(4));
  status.SetScript("", 0);
  EXPECT_EQ(status.Script(), "");
}

TEST(ThreadStatus, AReaderNeverSeesHalfOfAPath) {
  ThreadStatus status;
  const std::string one(60, '1');
  const std::string two(60, '2');
  std::atomic<bool> ended{false};
  std::thread writer([&] {
    while (!ended) {
      status.SetScript(one.data(), 60);
      status.SetScript(two.data(), 60);
    }
  });
  for (int i = 0; i < 20000; i++) {
    const std::string seen = status.Script();
    if (!seen.empty() && seen != one && seen != two) ADD_FAILURE() << seen;
  }
  ended = true;
  writer.join();
}

TEST(OwnStatus, CountsRequestsAndTasksOfTheProcess) {
  const StatusBoard board(2);
  OwnStatus::Use(board.get(), -1);
  {
    const OwnStatus::Thread thread(7);
    const OwnStatus::Task task;
    { const OwnStatus::Request request; }
    const OwnStatus::Request request;
    OwnStatus::SetScript(String("a.zpc", -1));
    OwnStatus::Enter(ThreadPhase::Running);
    const ProcessView view = ProcessView::Of(*board.get());
    EXPECT_EQ(view.pid, getpid());
    EXPECT_EQ(view.requests, 1u);
    EXPECT_EQ(view.tasks, 1u);
    EXPECT_GT(view.resident, 0);
    ASSERT_EQ(view.threads.size(), 1u);
    EXPECT_EQ(view.threads[0].number, 7u);
    EXPECT_EQ(view.threads[0].phase, ThreadPhase::Running);
    EXPECT_EQ(view.threads[0].script, "a.zpc");
  }
  const ProcessView view = ProcessView::Of(*board.get());
  EXPECT_EQ(view.requests, 2u);
  EXPECT_EQ(view.tasks, 0u);
  EXPECT_EQ(view.tasks_started, 1u);
  EXPECT_EQ(view.threads[0].phase, ThreadPhase::None);
  EXPECT_EQ(view.threads[0].age, 0);
  OwnStatus::Use(nullptr, -1);
}

TEST(OwnStatus, ARequestThatHasBegunToArriveIsSeen) {
  const StatusBoard board(1);
  OwnStatus::Use(board.get(), -1);
  const OwnStatus::Thread thread(7);
  const auto phase = [&board] { return ProcessView::Of(*board.get()).threads[0].phase; };
  OwnStatus::AwaitRequest();
  EXPECT_EQ(phase(), ThreadPhase::Receiving);
  const int64_t began = board.get()->thread(0)->began.load();
  EXPECT_GT(began, 0);
  // The wait for its next bytes begins no other request.
  OwnStatus::AwaitRequest();
  EXPECT_EQ(board.get()->thread(0)->began.load(), began);
  OwnStatus::Enter(ThreadPhase::Idle);
  EXPECT_EQ(phase(), ThreadPhase::Idle);
  OwnStatus::Use(nullptr, -1);
}

TEST(OwnStatus, AThreadWithoutARecordIsCountedWithTheOthers) {
  const StatusBoard board(1);
  OwnStatus::Use(board.get(), -1);
  std::thread([] { const OwnStatus::Thread first(1); }).join();
  {
    const OwnStatus::Thread thread(2);
    const OwnStatus::Request request;
    OwnStatus::SetScript(String("a.zpc", -1));
  }
  EXPECT_EQ(ProcessView::Of(*board.get()).requests, 1u);
  EXPECT_EQ(ProcessView::Of(*board.get()).threads.size(), 1u);
  OwnStatus::Use(nullptr, -1);
}

TEST(OwnStatus, NothingHappensWithoutARecord) {
  const OwnStatus::Thread thread(2);
  const OwnStatus::Task task;
  const OwnStatus::Request request;
  OwnStatus::Enter(ThreadPhase::Running);
  OwnStatus::SetScript(String("a.zpc", -1));
  OwnStatus::Ready();
  EXPECT_FALSE(OwnStatus::IsWorker());
}

TEST(StatusBoard, IsSharedWithAForkedProcess) {
  const StatusBoard board(1);
  const int changes = eventfd(0, EFD_CLOEXEC);
  const pid_t child = fork();
  if (child == 0) {
    OwnStatus::Use(board.get(), changes);
    OwnStatus::Ready();
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  uint64_t count = 0;
  EXPECT_EQ(read(changes, &count, sizeof count), 8);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(board.get()->pid.load(), child);
  EXPECT_EQ(ProcessView::Of(*board.get()).phase, ProcessPhase::Serving);
  close(changes);
}

}  // namespace

// Tables on a disk, shared by threads that have only the files in common.

#include <atomic>
#include <csignal>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/TableOnDisk.h"

namespace {

std::string MemoOf(int writer, int number) {
  return std::string(static_cast<size_t>(number * 37 % 1200), static_cast<char>('a' + writer)) +
         std::to_string(number);
}

TEST(XBaseSharedTable, ThreadsAppendAndUpdateWithoutLosingARecordOrAMemo) {
  constexpr int writers = 4, records = 60;
  TemporaryDirectory directory;
  {
    TableOnDisk maker(directory);
    auto columns = ColumnList(AllTypes());
    ASSERT_TRUE(maker.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
  }
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int writer = 0; writer < writers; writer++) {
    threads.emplace_back([&, writer] {
      TableOnDisk worker(directory);
      XBaseTable& table = worker.table;
      if (!table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable)) failures++;
      for (int i = 0; i < records; i++) {
        const std::string number = std::to_string(i);
        if (!AppendRow(table, {"w" + std::to_string(writer), number, "", "F", "first"})) failures++;
        SetField(table, 3, "T");
        SetField(table, 4, MemoOf(writer, i));
        if (!table.Update() || !table.UpdateDeleted(i % 2)) failures++;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);

  TableOnDisk reader(directory);
  ASSERT_TRUE(reader.table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable));
  ASSERT_EQ(reader.table.record_count(), writers * records);
  std::set<std::string> seen;
  for (int record = 1; record <= writers * records; record++) {
    ASSERT_TRUE(reader.table.Goto(record));
    const std::string name = ValueOf(reader.table, 0);
    const int number = std::stoi(ValueOf(reader.table, 1));
    EXPECT_TRUE(seen.insert(name + " " + std::to_string(number)).second);
    EXPECT_EQ(ValueOf(reader.table, 3), "T");
    EXPECT_EQ(ValueOf(reader.table, 4), MemoOf(std::stoi(name.substr(1)), number));
    EXPECT_EQ(reader.table.deleted() != 0, number % 2 == 1);
  }
  EXPECT_EQ(directory.Content("t.dbf").size(),
            static_cast<size_t>(193 + 38 * writers * records + 1));
}

TEST(XBaseSharedTable, ADeactivatedTableGoesOnWhereItWas) {
  TemporaryDirectory directory;
  TableOnDisk worker(directory);
  auto columns = ColumnList(AllTypes());
  ASSERT_TRUE(worker.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
  worker.table.Deactivate();
  ASSERT_TRUE(AppendRow(worker.table, {"Ann", "1", "", "", "note"}));
  worker.table.Deactivate();
  ASSERT_TRUE(worker.table.Goto(1));
  worker.table.Deactivate();
  EXPECT_EQ(ValueOf(worker.table, 4), "note");
}

TEST(XBaseSharedTable, ALockThatAnotherHoldsIsWaitedForUntilTheScriptIsCancelled) {
  TemporaryDirectory directory;
  TableOnDisk holder(directory), worker(directory);
  auto columns = ColumnList(AllTypes());
  ASSERT_TRUE(holder.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
  ASSERT_TRUE(worker.table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable));
  std::unique_ptr<File> file(holder.manager.Open(ZephPath_Data, "t.dbf", kOpenTable));
  ASSERT_TRUE(file->Lock(FileLock_Exclusive, 0, 1));
  worker.application.SetCancelled(1);
  EXPECT_FALSE(worker.table.Append());
  EXPECT_EQ(ErrorOf(worker.table), "Error locking 't.dbf' for write: Timed out waiting for lock");
  worker.application.SetCancelled(0);
  ASSERT_TRUE(file->Release(0, 1));
  EXPECT_TRUE(worker.table.Append()) << ErrorOf(worker.table);
}

// Other programs lock with fcntl; such a lock belongs to their process.
TEST(XBaseSharedTable, AClassicLockOfAnotherProcessIsRespected) {
  TemporaryDirectory directory;
  TableOnDisk worker(directory);
  auto columns = ColumnList(AllTypes());
  ASSERT_TRUE(worker.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
  Command other({"/usr/bin/python3", "-c",
                 "import fcntl, signal\n"
                 "table = open('t.dbf', 'r+b')\n"
                 "fcntl.lockf(table, fcntl.LOCK_EX, 1, 10)\n"
                 "print('locked', flush=True)\n"
                 "signal.pause()\n"});
  other.directory = directory.path();
  other.Start();
  other.WaitForOutput();
  worker.application.SetCancelled(1);
  EXPECT_FALSE(worker.table.Append());
  EXPECT_EQ(ErrorOf(worker.table), "Error locking 't.dbf' for write: Timed out waiting for lock");
  worker.application.SetCancelled(0);
  other.Signal(SIGKILL);
  other.Finish();
  EXPECT_TRUE(worker.table.Append()) << ErrorOf(worker.table);
}

// A position that the file layer cannot express. The memo would be written after the seek, so it is
// not written either.
TEST(XBaseSharedTable, RecordsBeyondTwoGigabytesAreRefused) {
  TemporaryDirectory directory;
  TableOnDisk worker(directory);
  TableHeader header{0x83};
  header.record_count = 60000000;  // of 38 bytes each
  directory.File("t.dbf", header.Bytes(AllTypes()));
  directory.File("t.dbt", MemoHeader(1));
  ASSERT_TRUE(worker.table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable));
  const std::string before = directory.Content("t.dbf");
  SetField(worker.table, 4, "note");
  EXPECT_FALSE(worker.table.Append());
  EXPECT_EQ(ErrorOf(worker.table),
            "Error writing to 't.dbf': Value too large for defined data type");
  EXPECT_EQ(directory.Content("t.dbf"), before);
  EXPECT_EQ(directory.Content("t.dbt"), MemoHeader(1));
  EXPECT_FALSE(worker.table.Goto(60000000));
  EXPECT_EQ(ErrorOf(worker.table),
            "Error reading from 't.dbf': Value too large for defined data type");
}

}  // namespace

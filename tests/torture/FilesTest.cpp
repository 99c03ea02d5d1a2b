// Files and their manager, with each system call failing in turn and each block of memory refused
// in turn: a failure is reported, what was acknowledged is in the file, and nothing is left over.

#include <fcntl.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "base/host/BufferedOutput.h"
#include "tests/torture/Sweeps.h"

namespace {

namespace fs = std::filesystem;

class FilesUnderFailures : public Sweeps {
 protected:
  void StartOver() {
    fs::remove_all(directory.path("data"));
    directory.File("data/a", "content of a");
    directory.File("data/sub/b", "content of b");
    memset(&wanted, 0, sizeof wanted);
    size = 0;
  }
  // Opens the base directory. The links to "sub" are allowed.
  bool Configure(UNIXFileManager* files) {
    files->SecurityOptions(FileSecurity_DataSymlinks);
    if (files->InitializeDataDirectory(directory.path("data").c_str())) return true;
    NeedText(files->error());
    return false;
  }
  std::set<std::string> Names() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory.path("data")))
      names.insert(entry.path().filename().string());
    return names;
  }

  // What a file has to hold, written here in step with it.
  char wanted[1024] = {};
  int size = 0;

  void Write(File* file, const char* text) {
    const int length = static_cast<int>(strlen(text));
    const int count = file->Write(text, length);
    if (count < 0) return NeedText(file->error());
    memcpy(wanted + size, text, static_cast<size_t>(count));
    size += count;
  }
  // Reads all of the file and returns to its end. Returns false on a failure.
  bool ReadBack(File* file) {
    if (file->Seek(0) < 0) return Failed(file);
    char bytes[sizeof wanted];
    int done = 0;
    while (done < size) {
      const int count = file->Read(bytes + done, static_cast<int>(sizeof bytes) - done);
      if (count < 0) return Failed(file);
      if (count == 0) break;
      done += count;
    }
    if (done != size || memcmp(bytes, wanted, static_cast<size_t>(size)) != 0)
      Broken("other bytes are read than were written");
    return file->Seek(size) >= 0 || Failed(file);
  }
  // Whether another descriptor could lock the byte at that place.
  bool IsFree(long start) const {
    const FailingAllocator::Pause pause;
    const FileDescriptor other(open(directory.path("data/a").c_str(), O_RDWR | O_CLOEXEC));
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = start;
    range.l_len = 1;
    return fcntl(other.get(), F_OFD_GETLK, &range) == 0 && range.l_type == F_UNLCK;
  }
  bool Failed(File* file) {
    NeedText(file->error());
    return false;
  }
  void Compare(long found, File* file, const char* promise) {
    if (found < 0) NeedText(file->error());
    if (found >= 0 && found != size) Broken(promise);
  }
  std::string Wanted() const { return {wanted, static_cast<size_t>(size)}; }
};

TEST_F(FilesUnderFailures, AFileHoldsWhatItsWritesHaveAcknowledged) {
  ExpectBothSweeps(
      {[&] { StartOver(); },
       [&] {
         Host host;
         if (!Configure(&host.files)) return;
         std::unique_ptr<File> file(host.files.Open(
             ZephPath_Data, "new", FileMode_Read | FileMode_Write | FileMode_Create));
         if (!file) return NeedText(host.files.error());
         Write(file.get(), "first ");
         Write(file.get(), "second ");
         host.files.DeactivateFile(file.get());
         Write(file.get(), "third ");
         Compare(file->Tell(), file.get(), "Tell");
         if (!ReadBack(file.get())) return;
         Write(file.get(), "fourth ");
         Compare(file->Length(), file.get(), "Length");
         host.files.DeactivateFile(file.get());
         Write(file.get(), "fifth ");
         (void)ReadBack(file.get());
       },
       [&](const SystemCallFault&) { EXPECT_EQ(directory.Content("data/new"), Wanted()); }});
}

TEST_F(FilesUnderFailures, AFileThatAppendsHoldsWhatItsWritesHaveAcknowledged) {
  ExpectBothSweeps(
      {[&] { StartOver(); },
       [&] {
         Host host;
         host.files.MaxFiles(1);
         if (!Configure(&host.files)) return;
         const int mode = FileMode_Write | FileMode_Create | FileMode_Append;
         std::unique_ptr<File> file(host.files.Open(ZephPath_Data, "sub/new", mode));
         if (!file) return NeedText(host.files.error());
         Write(file.get(), "first ");
         // The limit takes its descriptor.
         std::unique_ptr<File> other(host.files.Open(ZephPath_Data, "a", FileMode_Read));
         if (!other) NeedText(host.files.error());
         Write(file.get(), "second ");
         Compare(file->Length(), file.get(), "Length");
         Write(file.get(), "third");
       },
       [&](const SystemCallFault&) { EXPECT_EQ(directory.Content("data/sub/new"), Wanted()); }});
}

TEST_F(FilesUnderFailures, ManySmallReadsGetTheBytesOfTheFile) {
  const std::string text(3000, 'x');
  ExpectBothSweeps({[&] {
                      StartOver();
                      directory.File("data/long", text);
                    },
                    [&] {
                      Host host;
                      if (!Configure(&host.files)) return;
                      std::unique_ptr<File> file(
                          host.files.Open(ZephPath_Data, "long", FileMode_Read));
                      if (!file) return NeedText(host.files.error());
                      for (int i = 0; i < 60; i++) {
                        char bytes[50];
                        if (file->Seek(i * 50) < 0) return NeedText(file->error());
                        const int count = file->Read(bytes, 50);
                        if (count < 0) NeedText(file->error());
                        if (count == 0 || (count > 0 && bytes[count - 1] != 'x'))
                          Broken("a read within the file");
                      }
                      const char* map = file->Map(0, -1);
                      if (!map) return NeedText(file->error());
                      if (text.compare(0, text.size(), map, text.size()) != 0) Broken("Map");
                    },
                    [&](const SystemCallFault&) {}});
}

// What stays locked keeps the next one out until the object is deleted.
TEST_F(FilesUnderFailures, AFailedLockLeavesNothingLocked) {
  ExpectBothSweeps({[&] { StartOver(); },
                    [&] {
                      Host host;
                      if (!Configure(&host.files)) return;
                      const int mode = FileMode_Read | FileMode_Write;
                      std::unique_ptr<File> file(host.files.Open(ZephPath_Data, "a", mode));
                      if (!file) return NeedText(host.files.error());
                      for (int start : {0, 20, 40}) {
                        bool locked = false;
                        try {
                          locked = file->Lock(FileLock_Exclusive, start, 10);
                          if (!locked) NeedText(file->error());
                        } catch (const std::bad_alloc&) {
                        }
                        if (!locked && !IsFree(start)) Broken("bytes are locked after a failure");
                      }
                      if (!file->Release(20, 10)) NeedText(file->error());
                      if (!file->Release(0, 60)) NeedText(file->error());
                    },
                    [&](const SystemCallFault&) { EXPECT_TRUE(IsFree(0)); }});
}

// The operations on names, each with what it promises.
TEST_F(FilesUnderFailures, AnOperationOnANameDidWhatItSays) {
  const auto content = [&](const char* name) {
    return directory.Content(std::string("data/") + name);
  };
  ExpectBothSweeps({[&] {
                      StartOver();
                      directory.Link("data/link", "sub");
                    },
                    [&] {
                      Host host;
                      UNIXFileManager& files = host.files;
                      if (!Configure(&files)) return;
                      const auto type = ZephPath_Data;
                      const String none("none", -1);
                      // Whether it is done. If not, its own text has to be there.
                      const auto done = [&](bool result, const char* text) {
                        if (result) return true;
                        if (strcmp(files.error().data ? files.error().data : "", "none") == 0)
                          Broken(text);
                        files.Error(none);
                        return false;
                      };
                      const auto need = [&](bool holds, const char* promise) {
                        const FailingAllocator::Pause pause;
                        if (!holds) Broken(promise);
                      };
                      const auto same = [&](const char* name, const char* text) {
                        const FailingAllocator::Pause pause;
                        if (content(name) != text) Broken(name);
                      };
                      const auto exists = [&](const char* name) {
                        const FailingAllocator::Pause pause;
                        return directory.Exists(std::string("data/") + name);
                      };
                      files.Error(none);
                      if (done(files.Copy(type, "link/b", type, "copy"), "Copy"))
                        same("copy", "content of b");
                      // A failure to rename leaves the text as it was.
                      if (files.Rename(type, "sub/b", type, "renamed")) {
                        same("renamed", "content of b");
                        need(!exists("sub/b"), "Rename");
                      } else {
                        same("sub/b", "content of b");
                      }
                      bool found = false;
                      if (done(files.Exists(type, "link/../a", &found), "Exists"))
                        need(found, "Exists");
                      if (done(files.Exists(type, "gone", &found), "Exists"))
                        need(!found, "Exists");
                      long number = -1;
                      if (done(files.Length(type, "a", &number), "Length"))
                        need(number == 12, "Length");
                      if (done(files.IsDirectory(type, "sub", &found), "IsDirectory"))
                        need(found, "IsDirectory");
                      if (done(files.ModifiedTime(type, "a", &number), "ModifiedTime"))
                        need(number > 1000000, "ModifiedTime");
                      if (done(files.MakeDirectory(type, "sub/made"), "MakeDirectory"))
                        need(exists("sub/made"), "MakeDirectory");
                      if (done(files.RemoveDirectory(type, "sub/made"), "RemoveDirectory"))
                        need(!exists("sub/made"), "RemoveDirectory");
                      if (files.MakeSymbolicLink(type, "a", type, "other"))
                        need(exists("other"), "MakeSymbolicLink");
                      int mode = 0;
                      if (done(files.ChangeMode(type, "a", 0640), "ChangeMode") &&
                          done(files.Mode(type, "a", &mode), "Mode"))
                        need((mode & 0777) == 0640, "ChangeMode");
                      if (done(files.TouchFile(type, "touched"), "TouchFile"))
                        need(exists("touched"), "TouchFile");
                      List<String> names(1);
                      if (done(files.DirectoryListing(type, "sub/..", &names), "DirectoryListing"))
                        need(names.Entries() >= 4, "DirectoryListing");
                      else
                        need(names.Entries() == 0, "DirectoryListing has failed and left names");
                      if (done(files.Delete(type, "a"), "Delete")) need(!exists("a"), "Delete");
                    },
                    [&](const SystemCallFault&) {
                      EXPECT_TRUE(content("sub/b") == "content of b" ||
                                  content("renamed") == "content of b");
                    }});
}

// The same for the operations without a base directory.
TEST_F(FilesUnderFailures, AnOperationOnAPathDidWhatItSays) {
  std::string data;
  ExpectBothSweeps({[&] {
                      StartOver();
                      data = directory.path("data");
                    },
                    [&] {
                      Host host;
                      UNIXFileManager& files = host.files;
                      const String a((data + "/a").c_str(), -1), b((data + "/sub/b").c_str(), -1),
                          c((data + "/c").c_str(), -1);
                      const auto done = [&](bool result) {
                        if (!result) NeedText(files.error());
                        return result;
                      };
                      bool found = false;
                      long number = 0;
                      int mode = 0;
                      if (done(files.Copy(a.data, c.data)) && done(files.Length(c.data, &number)) &&
                          number != 12)
                        Broken("Copy");
                      if (done(files.Exists(b.data, &found)) && !found) Broken("Exists");
                      if (done(files.IsDirectory(b.data, &found)) && found) Broken("IsDirectory");
                      (void)done(files.ModifiedTime(b.data, &number));
                      if (done(files.ChangeMode(b.data, 0600)) && done(files.Mode(b.data, &mode)) &&
                          (mode & 0777) != 0600)
                        Broken("ChangeMode");
                      (void)done(files.Rename(a.data, c.data));
                      (void)done(files.TouchFile(a.data));
                      (void)done(files.Delete(b.data));
                    },
                    [&](const SystemCallFault&) {
                      const std::string text = "content of a";
                      EXPECT_TRUE(directory.Content("data/a") == text ||
                                  directory.Content("data/c") == text);
                    }});
}

TEST_F(FilesUnderFailures, ATemporaryFileThatIsNotGivenOutIsNotLeft) {
  bool given[2] = {};
  ExpectBothSweeps({[&] {
                      StartOver();
                      given[0] = given[1] = false;
                    },
                    [&] {
                      Host host;
                      if (!Configure(&host.files)) return;
                      const int mode = FileMode_Read | FileMode_Write;
                      char* name = nullptr;
                      std::unique_ptr<File> file(
                          host.files.MakeTemporary(ZephPath_Data, "", "temp", &name, mode));
                      std::unique_ptr<char[]> owned(name);
                      given[0] = file != nullptr;
                      if (!file) NeedText(host.files.error());
                      char* like = nullptr;
                      std::unique_ptr<File> second(
                          host.files.MakeTemporaryLike(ZephPath_Data, "sub/b", &like, mode));
                      std::unique_ptr<char[]> owned_too(like);
                      given[1] = second != nullptr;
                      if (!second) NeedText(host.files.error());
                    },
                    [&](const SystemCallFault& fault) {
                      // While all calls fail, nothing can be removed.
                      if (!fault.once) return;
                      EXPECT_EQ(directory.Exists("data/temp.0"), given[0]);
                      EXPECT_EQ(directory.Exists("data/sub/b.0"), given[1]);
                    }});
}

// A lock is held by the one who was told so, and by no one else. The next one gets it.
TEST_F(FilesUnderFailures, ANameLockIsHeldOnlyIfItSaysSo) {
  bool held = false;
  bool deleted = false;
  std::unique_ptr<Host> host;
  ExpectBothSweeps({[&] {
                      StartOver();
                      held = deleted = false;
                      host = std::make_unique<Host>();
                    },
                    [&] {
                      if (!Configure(&host->files)) return;
                      held = host->files.Lock(ZephPath_Data, "n.lck") == FileLock_Held;
                      if (!held) return NeedText(host->files.error());
                      deleted = host->files.Delete(ZephPath_Data, "n.lck");
                      if (!deleted) NeedText(host->files.error());
                    },
                    [&](const SystemCallFault& fault) {
                      host.reset();
                      // While all calls fail, nothing can be removed.
                      if (fault.once) {
                        EXPECT_EQ(directory.Exists("data/n.lck"), held && !deleted);
                      }
                      // The private file of a lock is left only if it could not be removed.
                      if (fault.once && fault.call != "unlinkat") {
                        EXPECT_EQ(Names().size(), held && !deleted ? 3u : 2u);
                      }
                    },
                    [&] { host->application.SetCancelled(1); }});
}

// The lock of a dead process is broken, and never by two.
TEST_F(FilesUnderFailures, AnAbandonedNameLockIsTakenOverWhole) {
  bool held = false;
  std::unique_ptr<Host> host;
  ExpectBothSweeps({[&] {
                      StartOver();
                      directory.File("data/n.lck", "999999999!1:testhost");
                      held = false;
                      host = std::make_unique<Host>();
                    },
                    [&] {
                      if (!Configure(&host->files)) return;
                      held = host->files.Lock(ZephPath_Data, "n.lck") == FileLock_Held;
                      if (!held) NeedText(host->files.error());
                    },
                    [&](const SystemCallFault& fault) {
                      host.reset();
                      const std::string record = directory.Content("data/n.lck");
                      if (held) {
                        EXPECT_EQ(record, "1000!2:testhost");
                      } else if (fault.once) {
                        EXPECT_TRUE(record.empty() || record == "999999999!1:testhost") << record;
                      }
                    },
                    [&] { host->application.SetCancelled(1); }});
}

// A background task gets a copy of its request's manager.
TEST_F(FilesUnderFailures, ACopyOfAManagerIsWholeOrGone) {
  ExpectBothSweeps({[&] { StartOver(); },
                    [&] {
                      Host host;
                      if (!Configure(&host.files) ||
                          !host.files.InitializeTempDirectory(directory.path("data/sub").c_str()))
                        return;
                      UNIXReentrantFileManager copy(&host.application, host.files);
                      bool exists = false;
                      if (!copy.Exists(ZephPath_Data, "a", &exists)) return NeedText(copy.error());
                      if (!exists) Broken("Exists");
                    },
                    [&](const SystemCallFault&) {}});
}

// Writes through to a file.
class FileOutput : public BufferedOutput {
 public:
  explicit FileOutput(File* sink) : BufferedOutput(8), file(sink) {}
  int Write_Error(const char* text, int length) override { return Write(text, length); }

 protected:
  int DoWrite(const char* text, int length) override { return file->Write(text, length); }

 private:
  File* file;
};

// A flush tells how many bytes were taken. They are the first ones of what was in the buffer.
TEST_F(FilesUnderFailures, AFlushTellsWhatWasTaken) {
  ExpectBothSweeps(
      {[&] { StartOver(); },
       [&] {
         Host host;
         if (!Configure(&host.files)) return;
         std::unique_ptr<File> file(
             host.files.Open(ZephPath_Data, "new", FileMode_Write | FileMode_Create));
         if (!file) return NeedText(host.files.error());
         FileOutput output(file.get());
         for (const char* text : {"one ", "two ", "three "}) {
           output.Write(text, -1);
           const int taken = output.Flush();
           if (taken < 0) {
             NeedText(file->error());
           } else {
             memcpy(wanted + size, text, static_cast<size_t>(taken));
             size += taken;
           }
         }
         CaptureOutput* capture = new CaptureOutput(&output);
         struct Closer {
           CaptureOutput* opened;
           ~Closer() { opened->Close(); }
         } closer = {capture};
         for (int i = 0; i < 2000; i++) capture->Write("captured text", 13);
         int length = 0;
         int allocated = 0;
         std::unique_ptr<char[]> text(capture->data(&length, &allocated));
         if (length != 26000 || text[25999] != 't') Broken("captured text");
       },
       [&](const SystemCallFault&) { EXPECT_EQ(directory.Content("data/new"), Wanted()); }});
}

}  // namespace

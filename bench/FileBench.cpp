// The cost of a request's files: opening the base directories, and opening one script with and
// without directories and links on the way. BM_KernelWalk is the lower bound: one system call that
// checks nothing about the directories that it passes.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "base/systems/unix/SystemCalls.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// The directory /tmp/<unique>/srv/site with the directories data, script and temp.
struct Site {
  Site() {
    for (const char* name : {"srv/site/data", "srv/site/script", "srv/site/temp"})
      tree.Directory(name);
    tree.File("srv/site/script/page.zpc", "Zeph");
    tree.File("srv/site/script/shop/cart/page.zpc", "Zeph");
    tree.Link("srv/site/script/link.zpc", "page.zpc");
    tree.Link("srv/site/script/linked", "shop");
  }
  std::string path(const char* name) const { return tree.path("srv/site/") + name; }

  TemporaryDirectory tree;
};

const Site& TheSite() {
  static const Site site;
  return site;
}

void BM_InitializeDirectories(benchmark::State& state) {
  std::string script = TheSite().path("script");
  std::string data = TheSite().path("data");
  std::string temp = TheSite().path("temp");
  for (auto _ : state) {
    UNIXReentrantFileManager files(nullptr);
    files.SecurityOptions(static_cast<int>(state.range(0)));
    benchmark::DoNotOptimize(files.InitializeTempDirectory(temp.c_str()));
    benchmark::DoNotOptimize(files.InitializeScriptDirectory(script.c_str(), nullptr));
    benchmark::DoNotOptimize(files.InitializeDataDirectory(data.c_str()));
  }
}
BENCHMARK(BM_InitializeDirectories)->ArgName("flags")->Arg(0)->Arg(1 | 2 | 4 | 8 | 256 | 512);

void OpenScript(benchmark::State& state, const char* path, int flags) {
  UNIXReentrantFileManager files(nullptr);
  files.SecurityOptions(flags);
  if (!files.InitializeScriptDirectory(TheSite().path("script").c_str(), nullptr)) abort();
  for (auto _ : state) {
    int descriptor = files.OpenContained(ZephPath_Script, path, O_RDONLY);
    if (descriptor < 0) abort();
    close(descriptor);
  }
}
BENCHMARK_CAPTURE(OpenScript, base_directory, "/page.zpc", 0);
BENCHMARK_CAPTURE(OpenScript, two_directories, "/shop/cart/page.zpc", 0);
BENCHMARK_CAPTURE(OpenScript, links_allowed, "/shop/cart/page.zpc", 1);
BENCHMARK_CAPTURE(OpenScript, all_links_allowed, "/shop/cart/page.zpc", 3);
BENCHMARK_CAPTURE(OpenScript, link_at_the_end, "/link.zpc", 1);
BENCHMARK_CAPTURE(OpenScript, link_on_the_way, "/linked/cart/page.zpc", 1);

void BM_FileObject(benchmark::State& state) {
  UNIXReentrantFileManager files(nullptr);
  if (!files.InitializeScriptDirectory(TheSite().path("script").c_str(), nullptr)) abort();
  for (auto _ : state) {
    std::unique_ptr<File> file(files.Open(ZephPath_Script, "/page.zpc", FileMode_Read));
    benchmark::DoNotOptimize(file.get());
  }
}
BENCHMARK(BM_FileObject);

void BM_KernelWalk(benchmark::State& state) {
  std::string path = TheSite().path("script");
  for (auto _ : state) {
    int descriptor = OpenWithoutLinks(AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) abort();
    close(descriptor);
  }
}
BENCHMARK(BM_KernelWalk);

void BM_OpenPath(benchmark::State& state) {
  SystemCalls saved = system_calls;
  if (state.range(0) == 0)
    system_calls.open_without_links = [](int, const char*, int) { return -1; };
  UNIXReentrantFileManager files(nullptr);
  std::string path = TheSite().path("script");
  for (auto _ : state) {
    int descriptor = -1;
    if (files.OpenPath(AT_FDCWD, path.c_str(), &descriptor, false, false) != PathWalk_Done) abort();
    close(descriptor);
  }
  system_calls = saved;
}
BENCHMARK(BM_OpenPath)->ArgName("in_one_call")->Arg(0)->Arg(1);

}  // namespace

// How much source the compiler takes in a second, on pages made of the examples of
// docs/language.md.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "compiler/Compiler.h"
#include "tests/support/Paths.h"

namespace {

// The sources of the document that compile by themselves, without what may be in a page only once.
std::vector<std::string> Examples() {
  std::ifstream file(InSource("docs/language.md"));
  std::vector<std::string> examples;
  std::string block;
  bool inside = false;
  for (std::string line; std::getline(file, line);) {
    if (!inside && line.rfind("```zeph", 0) == 0) {
      inside = true;
      block.clear();
    } else if (inside && line == "```") {
      inside = false;
      const bool once = block.find("<ZpFUNCTION ") != std::string::npos ||
                        block.find("<ZpLOCALIZED token") != std::string::npos;
      if (!once && CompilePage(block, "example").succeeded) examples.push_back(block);
    } else if (inside) {
      block += line + "\n";
    }
  }
  return examples;
}

// A page of about so many bytes. Real pages have much more text than the examples, so text is added
// until tags are a share of it; 100 adds none.
std::string Page(size_t bytes, int percent_of_tags) {
  static const std::vector<std::string> examples = Examples();
  static const std::string text =
      "<section class=\"item\"><h2>A heading of the page</h2>\n<p>Some text that a visitor reads, "
      "of "
      "the length that such texts have.</p>\n<a href=\"other.zpc\">another page</a></section>\n";
  std::string page;
  size_t tags = 0;
  for (size_t i = 0; page.size() < bytes; i++) {
    const std::string& example = examples[i % examples.size()];
    page += example;
    tags += example.size();
    while (tags * 100 > page.size() * static_cast<size_t>(percent_of_tags)) page += text;
  }
  return page;
}

// Arguments: bytes of the page, percent of tags.
void CompilesAPage(benchmark::State& state) {
  const std::string page =
      Page(static_cast<size_t>(state.range(0)), static_cast<int>(state.range(1)));
  CompileOptions options;
  for (auto unused : state) {
    CompileResult result = CompilePage(page, "page.zeph", options);
    if (!result.succeeded) {
      state.SkipWithError(result.formatted.substr(0, 500).c_str());
      return;
    }
    benchmark::DoNotOptimize(result.image);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(page.size()));
}
BENCHMARK(CompilesAPage)
    ->Args({2000, 100})
    ->Args({20000, 100})
    ->Args({200000, 100})
    ->Args({2000000, 100})
    ->Args({20000, 20})
    ->Args({2000000, 20})
    ->Unit(benchmark::kMillisecond);

}  // namespace

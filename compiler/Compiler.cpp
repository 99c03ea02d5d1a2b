// The stages of a compilation. Tested in tests/compiler/.

#include "compiler/Compiler.h"

#include <algorithm>
#include <set>

#include "base/core/ascii.h"
#include "compiler/Generator.h"
#include "compiler/Parser.h"
#include "tools/AssemblyProgram.h"

namespace {

// Reads the declarations of library functions. file is their number.
void ReadFunctions(int file, Diagnostics* diagnostics, Tree* tree, Parser* parser,
                   std::vector<FunctionNode>* functions) {
  const std::string_view text = diagnostics->file(file).text();
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    ExpressionParser line(diagnostics, tree, file, static_cast<int>(at), static_cast<int>(end));
    if (!line.AtEnd() && text[static_cast<size_t>(line.Position())] != ';') {
      FunctionNode node;
      if (parser->ParseDeclaration(&line, &node)) {
        node.flags |= Function_External;
        functions->push_back(std::move(node));
      }
    }
    at = end + 1;
  }
}

void Report(const Diagnostics& diagnostics, CompileResult* result) {
  for (const Diagnostic& diagnostic : diagnostics.Sorted()) {
    const SourceFile& file = diagnostics.file(diagnostic.place.file);
    result->messages.push_back({file.name(), file.Line(diagnostic.place.offset),
                                file.Column(diagnostic.place.offset), diagnostic.place.length,
                                diagnostic.is_error, diagnostic.text});
  }
  result->formatted = diagnostics.Format();
}

}  // namespace

CompileResult CompilePage(std::string_view source, const std::string& name,
                          const CompileOptions& options) {
  CompileResult result;
  Diagnostics diagnostics;
  Tree tree;
  AssemblyProgram program;
  std::set<std::string> defines;
  for (const std::string& define : options.defines) defines.insert(LowerCase(define));
  const int file = diagnostics.AddFile(name, std::string(source));
  Parser parser(&diagnostics, &tree, options.reader, defines);
  if (source.size() > Parser::kMostSource) {
    diagnostics.Error({file, 0, 1}, "the sources of this page are larger than 64 MB");
  } else {
    parser.Run(file);
  }
  const int pages = diagnostics.count();
  std::vector<FunctionNode> library;
  if (!options.functions.empty()) {
    const int functions = diagnostics.AddFile(options.functions_name, options.functions);
    ReadFunctions(functions, &diagnostics, &tree, &parser, &library);
  }
  for (const FunctionsFile& declared : options.functions_files) {
    const int functions = diagnostics.AddFile(declared.name, declared.text);
    ReadFunctions(functions, &diagnostics, &tree, &parser, &library);
  }
  program.SegmentAt(0);
  // Code of a page with errors in its syntax finds more of them, as long as its tags are whole.
  Generator generator(&diagnostics, &tree, &program, library, options.every_line);
  generator.Run(file, pages > 1);
  if (!diagnostics.failed()) {
    std::string problem;
    result.succeeded = program.Write(&result.image, &problem);
    if (!result.succeeded) diagnostics.Error({file, 0, 1}, problem);
  }
  Report(diagnostics, &result);
  for (int i = 0; i < pages; i++) {
    const std::string& found = diagnostics.file(i).name();
    if (std::find(result.files.begin(), result.files.end(), found) == result.files.end()) {
      result.files.push_back(found);
    }
  }
  return result;
}

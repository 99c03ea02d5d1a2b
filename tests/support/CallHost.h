// A machine that calls URLs of a scripted peer, and what a script sees of the responses.

#ifndef ZEPH_TESTS_SUPPORT_CALLHOST_H
#define ZEPH_TESTS_SUPPORT_CALLHOST_H

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "base/network/Call.h"
#include "base/values/Variable.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/ScriptedConnection.h"
#include "tests/support/TestApplication.h"

inline std::string BytesOf(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
}
inline String StringOf(const std::string& text) {
  return String(text.data(), static_cast<int>(text.size()));
}

// One pass of the loop's body: the variables of an element.
struct CallPass {
  std::string type;
  std::string value;
  std::string element;
  std::string count;
  // Names and values of all numbers that the variables have, in order; the array and the numbered
  // variables agree.
  std::vector<std::pair<std::string, std::string>> attributes;

  bool operator==(const CallPass&) const = default;
};

// A whole loop.
struct CallLoopSeen {
  std::vector<CallPass> passes;
  std::string error;  // empty at the end of the response

  bool operator==(const CallLoopSeen&) const = default;
};

class CallHost {
 public:
  CallHost() {
    application.SetOutput(&output);
    application.SetFileManager(&files);
    application.SetNetworkManager(&network);
  }

  void Set(const char* name, const std::string& text) {
    variables.SetVariable(name, -1, text.data(), static_cast<int>(text.size()));
  }
  // Null without such a variable.
  Variable* Find(const std::string& name) {
    Variable* found = nullptr;
    variables.Find(&found, name.data(), static_cast<int>(name.size()), 0);
    return found;
  }
  // "(none)" without such a variable.
  std::string Value(const std::string& name) {
    Variable* const found = Find(name);
    return found ? BytesOf(found->value()) : "(none)";
  }
  // The element of an array; "(none)" without it.
  std::string Element(const char* name, int number) {
    Variable* const found = Find(name);
    Variable* const element = found ? found->At(number, 0) : nullptr;
    return element ? BytesOf(element->value()) : "(none)";
  }

  ZephVM* vm() {
    if (!machine) {
      machine = std::make_unique<ZephVM>(
          "s", -1, &application, &dictionary, &system, &variables, &segments, &functions, nullptr,
          nullptr, nullptr, &languages, &pieces, application.heartbeatcounter(),
          application.timedoutflag(), application.exitflag(), nullptr);
    }
    return machine.get();
  }

  // Connects, and returns the call. failure has the text if that did not succeed.
  std::unique_ptr<Call> Connect(CallArguments arguments, const std::string& extra_headers = "") {
    auto call = std::make_unique<Call>(&application, vm(), &variables, std::move(arguments));
    connected = call->Connect(extra_headers.data(), static_cast<int>(extra_headers.size()));
    failure = connected ? "" : BytesOf(call->error());
    return call;
  }
  static CallArguments Arguments(const std::string& method, const std::string& url = "http://h/p") {
    CallArguments arguments;
    arguments.url = StringOf(url);
    arguments.method = StringOf(method);
    return arguments;
  }

  // All elements of a body that arrives in pieces, which end at these positions. A peer that stays
  // is silent after it, so that a read fails.
  CallLoopSeen Read(const std::string& body, const std::set<size_t>& cuts = {},
                    bool stays = false) {
    variables.Dump();
    peer = ScriptedPeer();
    peer.stays = stays;
    peer.bytes = "HTTP/1.1 200 OK\r\n\r\n";
    for (const size_t cut : cuts) peer.cuts.insert(peer.bytes.size() + cut);
    peer.bytes += body;
    CallLoopSeen seen;
    const std::unique_ptr<Call> call = Connect(Arguments("GET"));
    seen.error = failure;
    if (!connected) return seen;
    for (;;) {
      const Call::Result result = call->Find_Next_Element();
      if (result == Call::Failed) seen.error = BytesOf(call->error());
      if (result != Call::Found) return seen;
      seen.passes.push_back(Pass());
    }
  }
  CallPass Pass() {
    CallPass pass{Value("callobjecttype"),
                  Value("callvalue"),
                  Value("callobjectelement"),
                  Value("callobjectnumattributes"),
                  {}};
    for (int i = 1;; i++) {
      const std::string number = std::to_string(i);
      if (!Find("callobjectattribute" + number)) return pass;
      const std::string name = Value("callobjectattribute" + number);
      const std::string value = Value("callobjectvalue" + number);
      pass.attributes.emplace_back(name, value);
      // An array that was emptied has no elements.
      const bool emptied = !Find("callobjectattribute")->At(i, 0) && name.empty() && value.empty();
      if (!emptied &&
          (Element("callobjectattribute", i) != name || Element("callobjectvalue", i) != value)) {
        pass.attributes.emplace_back("the array differs", number);
      }
    }
  }

  RecordingOutput output;
  TestApplication application;
  FaultyFileManager files{&application};
  ScriptedPeer peer;
  ScriptedNetworkManager network{&application, &peer};
  Dictionary dictionary;
  SystemVariableHash system{&dictionary, 4, 8};
  VariableHash variables{&dictionary, 12, 512};
  SegmentManager segments;
  FunctionManager functions{&dictionary, 4};
  TaggedFile script{&files};
  LocalizedLanguages languages{&application, &dictionary, &script, 4, 8};
  LocalizedDictionary pieces;
  bool connected = false;
  std::string failure;

 private:
  std::unique_ptr<ZephVM> machine;
};

#endif

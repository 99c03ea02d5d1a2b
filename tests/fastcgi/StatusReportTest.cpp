#include "fastcgi/StatusReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "tests/support/Command.h"

namespace {

using testing::HasSubstr;

StatusReport Example() {
  StatusReport report;
  report.age = 100;
  report.past_requests = 10;
  report.past_busy = 2;
  report.workers_started = 3;
  report.workers_failed = 1;
  ProcessView process;
  process.pid = 4711;
  process.phase = ProcessPhase::Serving;
  process.requests = 5;
  process.busy = 1.5;
  process.tasks = 1;
  process.resident = 3000000;
  ThreadView idle;
  idle.number = 2;
  idle.phase = ThreadPhase::Idle;
  idle.script = "last.zpc";
  ThreadView running;
  running.number = 3;
  running.phase = ThreadPhase::Running;
  running.age = 12.25;
  running.requests = 5;
  running.memory = 7250000;
  running.script = "a \"b\"\\\n\xff%.zpc";
  process.threads = {idle, running};
  report.processes = {process};
  return report;
}

TEST(StatusReport, TextHasALineForEachThread) {
  const std::string text = Example().Text();
  EXPECT_THAT(text, HasSubstr("requests    15, 3.500 s together\n"));
  EXPECT_THAT(text,
              HasSubstr("threads     1 idle, 0 loading, 0 receiving, 1 running, 0 sending\n"));
  EXPECT_THAT(text, HasSubstr("workers     3 started, 1 failed, 0 reloads\n"));
  EXPECT_THAT(text, HasSubstr("process 4711, serving, "));
  EXPECT_THAT(text, HasSubstr("memory      3.0 MB, 7.2 MB for one request at most\n"));
  EXPECT_THAT(text, HasSubstr("       3  running        12.250           5       0.000       7.2  "
                              "a%20%22b%22%5C%0A%FF%25.zpc\n"));
  // An idle thread has no script.
  EXPECT_EQ(text.find("last.zpc"), std::string::npos);
}

// Read by another maker's parser.
TEST(StatusReport, JSONIsValidWhateverThePathHas) {
  Command python({"/usr/bin/env", "python3", "-c",
                  "import json,sys\n"
                  "d=json.loads(sys.argv[1])\n"
                  "t=d['processes'][0]['threads'][1]\n"
                  "print(d['requests'],t['state'],t['age_seconds'],t['script'],\n"
                  "d['most_memory_bytes'],t['most_memory_bytes'])",
                  Example().JSON()});
  EXPECT_EQ(python.Run(), 0) << python.errors;
  EXPECT_EQ(python.output, "15 running 12.25 a%20%22b%22%5C%0A%FF%25.zpc 7250000 7250000\n");
}

TEST(StatusReport, MetricsHaveTypesBeforeTheirValues) {
  const std::string text = Example().Metrics();
  std::istringstream lines(text);
  std::set<std::string> helped;
  std::set<std::string> typed;
  int values = 0;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string first, second, name, rest;
    words >> first >> second;
    if (first == "#") {
      words >> name >> rest;
      if (second == "TYPE") {
        EXPECT_TRUE(helped.count(name)) << line;
        EXPECT_TRUE(rest == "gauge" || rest == "counter") << line;
        EXPECT_EQ(rest == "counter", name.size() > 6 && name.substr(name.size() - 6) == "_total");
        EXPECT_TRUE(typed.insert(name).second) << line;
      } else {
        EXPECT_EQ(second, "HELP");
        EXPECT_TRUE(helped.insert(name).second) << line;
      }
      continue;
    }
    EXPECT_TRUE(typed.count(first.substr(0, first.find('{')))) << line;
    size_t used = 0;
    EXPECT_GE(std::stod(second, &used), 0) << line;
    EXPECT_EQ(used, second.size()) << line;
    EXPECT_TRUE(words.eof()) << line;
    values++;
  }
  EXPECT_EQ(values, 18);
  EXPECT_THAT(text, HasSubstr("\nzeph_requests_total 15\n"));
  EXPECT_THAT(text, HasSubstr("\nzeph_threads{state=\"running\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("\nzeph_oldest_request_seconds 12.250000\n"));
}

TEST(StatusReport, WhatAnEndedWorkerHasDoneStaysInTheSums) {
  StatusReport report = Example();
  report.Bury(report.processes[0]);
  report.processes.clear();
  EXPECT_THAT(report.Metrics(), HasSubstr("\nzeph_requests_total 15\n"));
  EXPECT_THAT(report.Metrics(), HasSubstr("\nzeph_request_seconds_total 3.500000\n"));
  EXPECT_THAT(report.Metrics(), HasSubstr("\nzeph_request_memory_max_bytes 7250000\n"));
  EXPECT_FALSE(report.IsServing());
}

}  // namespace

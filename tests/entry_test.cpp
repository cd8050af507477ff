/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The executable's start-up as the front end sees it: command-line modes, log line format and
// working directories.

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"
#include "request/bundlerun_entry.h"

namespace {

using namespace std::chrono_literals;
using harness::Exists;

class EntryTest : public harness::SandboxTest {};

int MountsAt(const std::string& target) {
  int count = 0;
  for (const std::string& line :
       android::base::Split(harness::ReadFile("/proc/self/mountinfo"), "\n")) {
    std::vector<std::string> fields = android::base::Split(line, " ");
    if (fields.size() > 4 && fields[4] == target) ++count;
  }
  return count;
}

TEST_F(EntryTest, CommandLineModesEndWithStatusZero) {
  constexpr char kSeverity[] = "D:LogSeverity=1\n";
  struct Case {
    std::vector<std::string> args;
    std::string out;
    bool argc_error;
  } cases[] = {
      {{}, kSeverity, false},
      {{"--bogus"}, std::string(kSeverity) + "wrong command format --bogus\n", false},
      {{"--run_from_command"}, kSeverity, true},
      {{"--run_from_fork", "--second_stage", "1", "0"}, kSeverity, true},
      {{"--run_from_fork", "--second_stage", "1", "0", "http://", "host"}, kSeverity, true},
      {{"--run_from_fork", "--third_stage", "1", "0"}, kSeverity, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(android::base::Join(c.args, " "));
    auto child = RunRaw(c.args);
    EXPECT_EQ(c.out, child->out());
    EXPECT_EQ(c.argc_error, android::base::StartsWith(child->err(), "argc: ")) << child->err();
  }
}

TEST_F(EntryTest, LogsGoToStandardOutputUnlessLogcatIsAskedFor) {
  struct Case {
    const char* value;  // nullptr: unset
    bool on_stdout;
  } cases[] = {{nullptr, true}, {"11", true}, {"1", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value ? c.value : "(unset)");
    c.value ? props_.Set("debug.logcat", c.value) : props_.Remove("debug.logcat");
    auto child = RunRaw({"--bogus"});
    EXPECT_EQ(c.on_stdout, child->out().find("D:LogSeverity=1\n") == 0) << child->out();
    EXPECT_EQ(!c.on_stdout, child->err().find("LogSeverity=1") != std::string::npos);
  }
}

TEST_F(EntryTest, OutsideTheBootImageTheScratchTreeMovesToATmpfsOnCache) {
  props_.Set("ro.bootimage.name", "android");
  RunRaw({});
  EXPECT_EQ(1, MountsAt("/cache/tmp"));
  for (const char* dir :
       {"/cache/tmp/download/LatestRom", "/cache/tmp/download/CrossRom", "/cache/tmp/dgq/events"}) {
    EXPECT_TRUE(Exists(dir)) << dir;
  }
  EXPECT_FALSE(Exists("/tmp/download"));

  // A second stage of the same debug run finds what the first laid out.
  harness::WriteFile("/cache/tmp/download/marker", "kept");
  RunRaw({});
  EXPECT_EQ(1, MountsAt("/cache/tmp"));
  EXPECT_EQ("kept", harness::ReadFile("/cache/tmp/download/marker"));
}

TEST(UiLoggerTest, WritesSeverityLetterAndMessage) {
  struct Case {
    android::base::LogSeverity severity;
    std::string line;
  } cases[] = {
      // The stages' own lines pin the letters of the other severities.
      {android::base::FATAL, std::string("\0:m\n", 4)},
  };
  for (const Case& c : cases) {
    testing::internal::CaptureStdout();
    UiLogger(android::base::MAIN, c.severity, "tag", "file", 1, "m");
    EXPECT_EQ(c.line, testing::internal::GetCapturedStdout());
  }
}

}  // namespace

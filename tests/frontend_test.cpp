/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun-ui through a whole update against the local server: plain lines for scripts, and the
// live terminal display driven with keys in tmux.

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using namespace std::chrono_literals;
using harness::ReadFile;
using harness::WriteFile;

constexpr char kRomZip[] = "/tmp/harness/mirror/base/V2.0/rom.zip";
constexpr char kUiLog[] = "/tmp/harness/ui.log";

class FrontendTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    UseFullDevice();
    ASSERT_EQ(0, system("mkdir -p /tmp/harness/mirror/base/V2.0"));
  }

  // Makes a sample ROM of |mib| MiB and serves it; |md5| overrides the digest the answer gives.
  void ServeRom(int mib, const std::vector<std::string>& extra = {}, std::string md5 = "") {
    ASSERT_EQ(
        0,
        system(
            (std::string(SAMPLE_ROM_MAKER) + " --size " + std::to_string(mib) + " " + kRomZip)
                .c_str()));
    if (md5.empty()) md5 = harness::Md5Sum(kRomZip);
    WriteFile("/tmp/harness/answer.json",
              R"({"LatestRom":{"version":"V2.0","filename":"rom.zip","filesize":")" +
                  std::to_string(mib) + R"(M","md5":")" + md5 +
                  R"(","Validate":"v"},"CurrentRom":{"version":"V1.0"},"MirrorList":)"
                  R"(["https://secure.yonda.example/base","http://mirror.yonda.example/base"]})");
    std::vector<std::string> args = {"--answer", "/tmp/harness/answer.json"};
    args.insert(args.end(), extra.begin(), extra.end());
    Serve(args);
  }

  // Runs bundlerun-ui in plain mode to its end; returns its exit status.
  int RunPlain(std::vector<std::string> args, std::string* out) {
    args.insert(args.begin(), {"--plain", "--log", kUiLog});
    auto ui = bundlerun_parent::Child::StartRaw(UI_BIN, args);
    int status = ui->WaitForExit(120s);
    *out = ui->out();
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status);
  }
};

TEST_F(FrontendTest, PlainModeRunsAWholeUpdateAndRefusesAWrongPackage) {
  struct Case {
    const char* md5;  // "": the package's own
    int exit_status;
    std::vector<std::string> lines;
    const char* never;
  } cases[] = {
      {"",
       0,
       {"stage1: clock set from the update server (0:s)\n",
        "stage1: a ROM is offered, its package address answered (2:s:0)\n",
        "rom: size 4.0 MiB (4194304 bytes)\n",
        "rom: mirror 0 https://secure.yonda.example/base  (skipped: https)\n",
        "rom: mirror 1 http://mirror.yonda.example/base  <- chosen\n",
        "stage2: downloading http://mirror.yonda.example/base/V2.0/rom.zip (mirror 1)",
        "verify: package intact: MD5 ", "install: [2/3] Writing the system image\n",
        "install: Install complete\n", "install: installer finished\n", "done: update finished\n"},
       "NOT match"},
      {"0123456789abcdef0123456789abcdef",
       2,
       {"verify: package does NOT match the ROM: MD5 ",
        ", the ROM says 0123456789abcdef0123456789abcdef\n"},
       "install:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.exit_status);
    ServeRom(4, {}, c.md5);
    std::string out;
    EXPECT_EQ(c.exit_status, RunPlain({}, &out)) << out;
    size_t at = 0;
    for (const std::string& line : c.lines) {
      at = out.find(line, at);
      ASSERT_NE(std::string::npos, at) << line << " in\n" << out;
    }
    EXPECT_EQ(std::string::npos, out.find(c.never)) << out;
    if (c.exit_status != 0) continue;
    // An unthrottled local mirror is done before bundlerun's first speed line: the speed shown
    // comes from the package file's growth.
    const size_t done = out.find("stage2: 100% 4.0 MiB of 4.0 MiB at ");
    ASSERT_NE(std::string::npos, done) << out;
    const std::string done_line = out.substr(done, out.find('\n', done) - done);
    EXPECT_EQ(std::string::npos, done_line.find(" at 0 B/s")) << done_line;
    EXPECT_TRUE(android::base::EndsWith(done_line, ", 0:00 left")) << done_line;
    // The log holds bundlerun's own lines, section by section.
    const std::string log = ReadFile(kUiLog);
    EXPECT_NE(std::string::npos, log.find("] ===== Stage two: download =====\n"));
    EXPECT_NE(std::string::npos, log.find("] I:Bye bye, RUN_UPDATER\n"));
  }
}

// Returns what tmux shows in the front end's pane.
std::string Screen() {
  return harness::Output("tmux capture-pane -p -t ui");
}

bool WaitForScreen(const std::string& text, std::chrono::seconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (Screen().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

TEST_F(FrontendTest, TerminalModeFitsTheBarToEightyColumnsAndObeysKeys) {
  ServeRom(8, {"--rate", "1048576"});
  const std::string command = std::string("tmux new-session -d -s ui -x 80 -y 45 '") +
                              harness::ShellProgram(UI_BIN) + " --log " + kUiLog +
                              "; echo EXIT:$?; sleep 600'";
  ASSERT_EQ(0, system(command.c_str()));
  // Returns the bar's line once it shows |hint|, whole within the width.
  auto bar = [](const std::string& hint) {
    EXPECT_TRUE(WaitForScreen(hint, 60s)) << Screen();
    for (const std::string& line : android::base::Split(Screen(), "\n")) {
      if (line.find(hint) != std::string::npos) return line;
    }
    return std::string();
  };
  ASSERT_TRUE(WaitForScreen("B/s  ETA ", 60s)) << Screen();
  const std::string running = bar("  downloading  [p]ause [s]top");
  EXPECT_LT(running.size(), 80u) << running;
  EXPECT_NE(std::string::npos, running.find("B/s  ETA ")) << running;
  ASSERT_EQ(0, system("tmux send-keys -t ui p"));
  // No speed and no time left while paused.
  const std::string paused = bar("  paused  [c]ontinue [s]top");
  EXPECT_EQ(std::string::npos, paused.find("B/s")) << paused;
  EXPECT_EQ(std::string::npos, paused.find("ETA")) << paused;
  ASSERT_EQ(0, system("tmux send-keys -t ui s"));
  EXPECT_TRUE(WaitForScreen("EXIT:", 30s)) << Screen();

  const std::string screen = Screen();
  WriteFile(std::string(TEST_ARTIFACTS_DIR) + "/bundlerun-ui-terminal.txt", screen);
  system("tmux kill-server");
  EXPECT_NE(std::string::npos, screen.find("download stopped at ")) << screen;
  EXPECT_NE(std::string::npos, screen.find("EXIT:4")) << screen;
  EXPECT_NE(std::string::npos, ReadFile(kUiLog).find("E:---->receive command: p\n"));
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// "--run_from_command <n>": prefixes of the task chain, and the installer with its updater lines.

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using namespace std::chrono_literals;
using harness::ReadFile;
using harness::UpdateServer;
using harness::WriteFile;

constexpr char kOffer[] =
    R"({"LatestRom":{"version":"V2.0","filename":"rom.zip","filesize":"1M","md5":"m",)"
    R"("Validate":"v"},"CurrentRom":{"version":"V1"},"MirrorList":["http://mirror.yonda.example"]})";

class CommandModeTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    UseFullDevice();
    system(
        "mkdir -p /tmp/harness/mirror/V2.0 && head -c 1048576 /dev/urandom > "
        "/tmp/harness/mirror/V2.0/rom.zip");
  }
  void Serve(const std::string& answer) {
    WriteFile("/tmp/harness/answer.json", answer);
    server_.reset();
    server_ = std::make_unique<UpdateServer>(std::vector<std::string>{
        "--answer", "/tmp/harness/answer.json", "--packages", "/tmp/harness/mirror"});
    ASSERT_TRUE(server_->ok());
  }
  // Returns "METHOD path" of every request the server received.
  std::vector<std::string> Requests() {
    std::vector<std::string> seen;
    for (const harness::Request& r : server_->requests()) seen.push_back(r.method + " " + r.path);
    return seen;
  }
  std::unique_ptr<UpdateServer> server_;
};

TEST_F(CommandModeTest, NumberSelectsHowMuchOfTheChainRuns) {
  const std::string md5 = harness::Md5Sum("/tmp/harness/mirror/V2.0/rom.zip");
  const std::vector<std::string> time = {"HEAD /"};
  const std::vector<std::string> query = {"HEAD /", "POST /updates/zeotaV3.php"};
  const std::vector<std::string> probe = {"HEAD /", "POST /updates/zeotaV3.php",
                                          "HEAD /V2.0/rom.zip"};
  const std::vector<std::string> all = {"HEAD /", "POST /updates/zeotaV3.php", "HEAD /V2.0/rom.zip",
                                        "GET /V2.0/rom.zip"};
  struct Case {
    std::string number;
    std::vector<std::string> requests;
    std::vector<std::string> lines;  // status lines on standard output, in order
  } cases[] = {
      {"0", time, {"\n0:s\n"}},
      {"-", time, {"\n0:s\n"}},  // A negative number runs the first task only.
      {"1", query, {"\n0:s\n", "\n1:s\n"}},
      {"2", probe, {"\n1:s\n", "\n2:s:0I:this is the last task, byebye\n"}},
      {"3", all, {"\n2:s:0I:>> RomDownload is running...\n", "\n3:c:" + md5 + "\n"}},
      {"9", all, {"\n3:c:" + md5 + "\n", "I:3 is the last task, byebye\n"}},
      {"7x", all, {"\n3:c:" + md5 + "\n"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.number);
    system("rm -f /tmp/secure_update.zip");
    Serve(kOffer);
    auto child = StartCommand(c.number);
    Finish(*child);
    EXPECT_EQ(c.requests, Requests());
    size_t at = 0;
    for (const std::string& line : c.lines) {
      at = child->out().find(line, at);
      ASSERT_NE(std::string::npos, at) << line << " in\n" << child->out();
    }
  }
}

TEST_F(CommandModeTest, DownloadWithoutAnOfferedRomEndsAtOnce) {
  Serve(R"({"CurrentRom":{"version":"V1"}})");
  auto child = StartCommand("3");
  Finish(*child);
  EXPECT_NE(std::string::npos,
            child->out().find("2:s:2I:>> RomDownload is running...\n"
                              "E:>> RomDownload has no url info!! End the RomDownload\n3:f:3\n"))
      << child->out();
  EXPECT_EQ(2u, Requests().size());  // No probe: there is no address to probe.
}

TEST_F(CommandModeTest, InstallerLinesAreRelayedIntoTheLog) {
  umask(0);
  WriteFile("/tmp/update-binary",
            "#!/bin/bash\n"
            "echo \"args: $*\"\n"
            "touch /tmp/installed\n"
            "for line in 'progress 0.5 10' 'progress 0.5' 'log step one' 'log' "
            "'ui_print Installing V2.0' 'set_perm 0 0'; do echo \"$line\" >&$2; done\n"
            "exit 0\n");
  chmod("/tmp/update-binary", 0755);
  auto child = StartCommand("6");
  Finish(*child);
  const std::string& out = child->out();
  const std::string expected =
      "E:invalid \"progress\" parameters: progress 0.5\n"
      "E:invalid \"log\" parameters: log\n"
      "E:ui_print: Installing V2.0\n"
      "E:unknown command [set_perm]\n"
      "I:Bye bye, RUN_UPDATER\n";
  EXPECT_TRUE(android::base::EndsWith(out, expected)) << out;
  EXPECT_NE(std::string::npos, out.find("I:Here we go... the process ")) << out;
  const size_t args = out.find("args: 3 ");
  ASSERT_NE(std::string::npos, args) << out;
  EXPECT_NE(std::string::npos, out.find(" /tmp/secure_update.zip\n", args));
  // The installer's stdout is not repeated by the fork, and each line comes once.
  EXPECT_EQ(out.find("D:LogSeverity=1\n"), out.rfind("D:LogSeverity=1\n"));
  struct stat st;
  ASSERT_EQ(0, stat("/tmp/installed", &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);
}

TEST_F(CommandModeTest, InstallerThatCannotRunOrFailsEndsTheSameWay) {
  auto missing = StartCommand("6");
  Finish(*missing);
  EXPECT_NE(std::string::npos,
            missing->out().find("E:Can't run /tmp/update-binary (No such file or directory)\n"));
  EXPECT_TRUE(android::base::EndsWith(missing->out(), "I:Bye bye, RUN_UPDATER\n"));

  WriteFile("/tmp/update-binary", "#!/bin/sh\necho 'ui_print failing' >&$2\nexit 3\n");
  chmod("/tmp/update-binary", 0755);
  auto failing = StartCommand("6");
  Finish(*failing);
  EXPECT_TRUE(
      android::base::EndsWith(failing->out(), "E:ui_print: failing\nI:Bye bye, RUN_UPDATER\n"))
      << failing->out();
}

TEST_F(CommandModeTest, BrokenDiagnosticsPidFileEndsTheProcess) {
  Serve(kOffer);
  mkdir("/cache/yonda", 0755);
  WriteFile("/cache/yonda/diagpid", "abc");
  auto child = StartCommand("0");
  int status = child->WaitForExit(60s);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_NE(std::string::npos, child->out().find("I:file /cache/yonda/diagpidis existed\n"));
  EXPECT_EQ("0", ReadFile("/tmp/dgq/events/download_status"));
}

}  // namespace

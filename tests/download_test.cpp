/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The second stage against local package mirrors: progress and speed, the front end's commands,
// resume, retry and redirect, and what a hostile or broken mirror or front end cannot do to it.
// The front end here keeps its command pipe open until bundlerun has exited, as real ones do.

#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using namespace std::chrono_literals;
using bundlerun_parent::StatusParser;
using bundlerun_parent::StatusRecord;
using harness::ReadFile;
using harness::WriteFile;

constexpr char kPackage[] = "/tmp/secure_update.zip";
constexpr char kPackagePath[] = "/base/V2.0/rom.zip";
constexpr int64_t kPackageSize = 6 * 1024 * 1024;

int64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::vector<StatusRecord> Records(const std::string& status) {
  StatusParser parser;
  std::vector<StatusRecord> records = parser.Feed(status);
  for (StatusRecord& r : parser.Finish()) records.push_back(r);
  return records;
}

// Returns a condition that holds once the download has reported at least |percent|.
std::function<bool(const std::string&)> ReachedPercent(int percent) {
  return [percent](const std::string& status) {
    for (const StatusRecord& r : Records(status)) {
      if (r.index == 3 && r.letter == 'p' && std::stoi(r.payload) >= percent) return true;
    }
    return false;
  };
}

// Returns a condition that holds once |line| has arrived |times| times.
std::function<bool(const std::string&)> Received(const std::string& line, size_t times = 1) {
  return [line, times](const std::string& status) { return Count(status, line) >= times; };
}

// Returns the value of |field| ("Threads", "VmStk") in /proc/|pid|/status.
std::string ProcessStatus(pid_t pid, const std::string& field) {
  for (const std::string& line :
       android::base::Split(ReadFile("/proc/" + std::to_string(pid) + "/status"), "\n")) {
    if (android::base::StartsWith(line, field + ":")) {
      return android::base::Trim(line.substr(field.size() + 1));
    }
  }
  return "(none)";
}

class DownloadTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(0, system("mkdir -p /tmp/harness/mirror/base/V2.0 /tmp/download/LatestRom"));
    ASSERT_EQ(0, system("head -c 6291456 /dev/urandom > /tmp/harness/mirror/base/V2.0/rom.zip"));
    md5_ = harness::Md5Sum(std::string(harness::kMirrorDir) + kPackagePath);
    // What the first stage leaves for the second: the package size and the ROM in use.
    WriteFile("/tmp/download/LatestRom/filesize", std::to_string(kPackageSize));
    ASSERT_EQ(0, symlink("/tmp/download/LatestRom", "/tmp/download/CurrentRom"));
  }

  // Copies the package to |path| under a second mirror's directory |dir|.
  static void CopyPackage(const std::string& dir, const std::string& path) {
    const std::string to = dir + path;
    ASSERT_EQ(0, system(("mkdir -p $(dirname " + to + ") && cp " + harness::kMirrorDir +
                         kPackagePath + " " + to)
                            .c_str()));
  }

  std::unique_ptr<bundlerun_parent::Child> StartDownload(
      const std::string& host = "mirror.yonda.example") {
    return StartStage("--second_stage", {"http://", host, kPackagePath});
  }

  // Returns the package GETs the mirror received.
  std::vector<harness::Request> Gets() {
    std::vector<harness::Request> gets;
    for (const harness::Request& r : server_->requests()) {
      if (r.method == "GET") gets.push_back(r);
    }
    return gets;
  }

  std::string md5_;
};

// Percents rise, a speed line comes about once a second, and the stage ends on its own with the
// package's digest, whether the front end keeps its command pipe open until then or closes it
// early; a mirror that sends nothing ends it too.
TEST_F(DownloadTest, ReportsRisingPercentAndSpeedAndEndsOnItsOwn) {
  struct Case {
    const char* name;
    bool empty_package;
    bool close_commands;
  } cases[] = {
      {"pipe held to the end", false, false},
      {"pipe closed mid-download", false, true},
      {"nothing received", true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    unlink(kPackage);
    if (c.empty_package) WriteFile(std::string(harness::kMirrorDir) + kPackagePath, "");
    Serve({"--rate", "3145728"});
    auto child = StartDownload();
    if (c.close_commands) {
      ASSERT_TRUE(child->WaitForStatus(ReachedPercent(5), 30s));
      child->CloseCommands();
    }
    Finish(*child, 30s);
    std::vector<StatusRecord> records = Records(child->status());
    ASSERT_FALSE(records.empty()) << child->status();
    ASSERT_TRUE(records.back().terminated);
    ASSERT_EQ(1u, Gets().size());
    EXPECT_EQ("mirror.yonda.example", Gets()[0].host);
    if (c.empty_package) {
      EXPECT_EQ("3:f:52", child->status().substr(0, child->status().size() - 1));
      continue;
    }
    EXPECT_EQ("3:c:" + md5_, records.back().text());
    int last_percent = 0, speeds = 0;
    for (size_t i = 0; i + 1 < records.size(); ++i) {
      const StatusRecord& r = records[i];
      ASSERT_EQ(3, r.index) << child->status();
      ASSERT_TRUE(r.letter == 'p' || r.letter == 's') << r.text();
      if (r.letter == 'p') {
        EXPECT_GT(std::stoi(r.payload), last_percent) << child->status();
        last_percent = std::stoi(r.payload);
      } else {
        ++speeds;
        EXPECT_GT(std::stoul(r.payload), 1000000u);  // Bytes per second, not a percentage.
      }
    }
    EXPECT_GE(last_percent, 95);
    EXPECT_GE(speeds, 1);
    EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
    EXPECT_NE(std::string::npos, child->out().find("I:>> Totally 6291456 bytes downloaded\n"));
  }
}

TEST_F(DownloadTest, PauseHoldsTheFileFromTheAnswerUntilContinueEveryTime) {
  // Slow enough that the package cannot be complete before the last cycle, however long the
  // cycles take; then the rest comes at full speed.
  Serve({"--rate", "65536"});
  auto child = StartDownload();
  ASSERT_TRUE(child->WaitForStatus(ReachedPercent(1), 30s));
  ASSERT_TRUE(child->SendCommand("pause\n"));
  ASSERT_TRUE(child->WaitForStatus(Received("3:r:p\n"), 10s));
  // Paused means paused from the answer on: the file holds still and no percent follows.
  const int64_t paused_at = FileSize(kPackage);
  const size_t status_at = child->status().size();
  for (int i = 0; i < 15; ++i) child->Pump(100ms);
  EXPECT_EQ(paused_at, FileSize(kPackage));
  EXPECT_EQ(std::string::npos, child->status().find(":p:", status_at)) << child->status();
  ASSERT_TRUE(child->SendCommand("c\n"));
  ASSERT_TRUE(child->WaitForStatus(Received("3:r:c\n"), 10s));

  constexpr size_t kCycles = 2000;
  for (size_t i = 2; i <= kCycles; ++i) {
    for (const char* command : {"p", "c"}) {
      const std::string answer = std::string("3:r:") + command + "\n";
      ASSERT_TRUE(child->SendCommand(std::string(command) + "\n"));
      ASSERT_TRUE(child->WaitForStatus(Received(answer, i), 30s)) << answer << " #" << i;
    }
  }
  server_->Unthrottle();
  Finish(*child);
  EXPECT_EQ(kCycles, Count(child->status(), "3:r:p\n"));
  EXPECT_EQ(kCycles, Count(child->status(), "3:r:c\n"));
  EXPECT_TRUE(android::base::EndsWith(child->status(), "3:c:" + md5_ + "\n"));
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
  EXPECT_NE(std::string::npos, child->out().find("E:---->receive command: pause\n"));
}

// A pause belongs to the download: one sent while the mirror is away holds the transfer that
// starts when it is back.
TEST_F(DownloadTest, PauseDuringAnOutageHoldsTheTransferThatFollows) {
  auto child = StartDownload();  // Nothing listens on the mirror's port yet.
  ASSERT_TRUE(child->WaitForStatus(Received("3:f:7\n", 5), 30s)) << child->status();
  ASSERT_TRUE(child->SendCommand("p\n"));
  ASSERT_TRUE(child->WaitForStatus(Received("3:r:p\n"), 10s));
  Serve({});
  ASSERT_TRUE(child->WaitForStatus([&](const std::string&) { return !Gets().empty(); }, 30s));
  for (int i = 0; i < 10; ++i) child->Pump(100ms);
  EXPECT_EQ(0, FileSize(kPackage));
  ASSERT_TRUE(child->SendCommand("c\n"));
  Finish(*child);
  EXPECT_EQ(1u, Count(child->status(), "3:r:p\n"));
  EXPECT_EQ(1u, Count(child->status(), "3:r:c\n"));
  EXPECT_TRUE(android::base::EndsWith(child->status(), "3:c:" + md5_ + "\n")) << child->status();
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
}

// A stop ends the download with "3:r:s" and no further request, whatever it is doing: receiving,
// waiting on a mirror that stalls, hashing a large file an earlier process left, failing attempt
// after attempt, or paused by a front end that then went away.
TEST_F(DownloadTest, StopEndsTheDownloadWhateverItIsDoing) {
  struct Case {
    const char* name;
    std::function<void()> setup;  // before the download starts
    std::function<bool(const std::string&)> ready;
    std::vector<std::string> commands;  // then sent; none: both pipes are closed instead
    std::string log;                    // a line the download logged before the stop
    int64_t whole = kPackageSize;       // what the package file holds when complete
  };
  // Sparse: no memory spent, but every byte hashed, which takes seconds.
  constexpr int64_t kHeld = int64_t{2} * 1024 * 1024 * 1024;
  auto throttled = [this] { Serve({"--rate", "1048576"}); };
  auto unopenable = [this] {
    Serve({});
    ASSERT_EQ(0, mkdir(kPackage, 0755));
  };
  std::vector<Case> cases = {
      {"receiving",
       throttled,
       ReachedPercent(5),
       {"x\n", "s\n"},
       "W:RomDownload INVALID COMMAND: x\n"},
      {"paused, then the front end goes away",
       throttled,
       ReachedPercent(5),
       {},
       "E:---->receive command: p\n"},
      {"a large held file is hashed",
       [this] {
         WriteFile(kPackage, "");
         ASSERT_EQ(0, truncate(kPackage, kHeld));
         Serve({"--rate", "1048576"});
       },
       Received("3:p:"),
       {"s\n"},
       "I:>> RomDownload is running...\n",
       kHeld + kPackageSize},
      {"the mirror stalls in the middle of the body",
       [this] {
         Serve({"--stall-at", "2097152"});
       },
       [](const std::string&) { return FileSize(kPackage) == 2097152; },
       {"s\n"},
       "E:---->receive command: s\n"},
  };
  // A stop that arrives while attempts fail is lost in a race, if it is lost: each a few times.
  for (int round = 0; round < 3; ++round) {
    cases.push_back({"connections refused",
                     [] {},
                     Received("3:f:7\n", 50),
                     {"s\n"},
                     "E:Unexception(7) occurred...retry the downloading\n"});
    cases.push_back({"package file cannot be opened",
                     unopenable,
                     Received("3:f:23\n", 50),
                     {"s\n"},
                     "E:failed to open /tmp/secure_update.zip: Is a directory\n"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server_.reset();
    system("rm -rf /tmp/secure_update.zip");
    WriteFile("/tmp/download/LatestRom/filesize", std::to_string(c.whole));
    c.setup();
    auto child = StartDownload();
    ASSERT_TRUE(child->WaitForStatus(c.ready, 60s)) << child->status();
    if (c.commands.empty()) {
      ASSERT_TRUE(child->SendCommand("p\n"));
      ASSERT_TRUE(child->WaitForStatus(Received("3:r:p\n"), 10s));
      child->CloseCommands();
      child->CloseStatus();
    }
    for (const std::string& command : c.commands) ASSERT_TRUE(child->SendCommand(command));
    const auto acted = std::chrono::steady_clock::now();
    const size_t gets = server_ ? Gets().size() : 0;
    Finish(*child, 10s);
    EXPECT_LT(std::chrono::steady_clock::now() - acted, 1s);
    if (!c.commands.empty()) {
      EXPECT_TRUE(android::base::EndsWith(child->status(), "\n3:r:s")) << child->status();
    }
    // A stop is not a failure to retry.
    EXPECT_EQ(std::string::npos, child->status().find("3:f:42")) << child->status();
    EXPECT_NE(std::string::npos, child->out().find(c.log)) << child->out();
    EXPECT_NE(std::string::npos,
              child->out().find("E: CURLE_ABORTED_BY_CALLBACK lead to download stopped\n"));
    if (server_) {
      EXPECT_EQ(gets, Gets().size());
    }
    EXPECT_LT(FileSize(kPackage), c.whole);
  }
}

// What the package file held when the stage began counts in the percent and in the digest; a
// package that was already whole (the front end restarted after its last byte) ends at once.
TEST_F(DownloadTest, HeldBytesCountInThePercentAndTheDigest) {
  for (const int64_t held : {int64_t{2 * 1024 * 1024}, kPackageSize}) {
    SCOPED_TRACE(held);
    // Throttled so that progress is reported before the package is whole.
    Serve({"--offset", std::to_string(held), "--rate", "4194304"});
    ASSERT_EQ(0, system(("head -c " + std::to_string(held) + " " + harness::kMirrorDir +
                         kPackagePath + " > " + kPackage)
                            .c_str()));
    auto child = StartDownload();
    Finish(*child);
    std::vector<StatusRecord> records = Records(child->status());
    ASSERT_FALSE(records.empty());
    if (held < kPackageSize) {
      ASSERT_EQ('p', records[0].letter) << child->status();
      EXPECT_GE(std::stoi(records[0].payload), 33);  // The held third counts.
    } else {
      EXPECT_EQ(1u, records.size()) << child->status();
    }
    EXPECT_EQ("3:c:" + md5_, records.back().text());
    EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
    EXPECT_NE(std::string::npos, child->out().find("lastresume=" + std::to_string(held)));
  }
}

// The digest of a large held file takes seconds, while the rest of the package keeps arriving
// and piles up behind it. Neither the front end's commands nor the rest of the package wait for
// it: the transfer waits only for bytes it received itself, and only for a moment; when the
// digest reaches the pile, the transfer is held, the commands are still answered at once, and
// the transfer runs again by itself once the digest has caught up.
TEST_F(DownloadTest, NothingWaitsWhileALargeHeldFileIsHashed) {
  constexpr int64_t kHeld = int64_t{2} * 1024 * 1024 * 1024;
  constexpr int64_t kRest = 192 * 1024 * 1024;
  const std::string mirror_file = std::string(harness::kMirrorDir) + kPackagePath;
  for (const bool commands : {true, false}) {
    SCOPED_TRACE(commands ? "pause and continue all along" : "no command");
    // Sparse gigabytes on both sides: no memory spent, but every byte hashed.
    ASSERT_EQ(0, system(("truncate -s 0 " + mirror_file + " " + kPackage + " && truncate -s " +
                         std::to_string(kHeld + kRest) + " " + mirror_file + " && truncate -s " +
                         std::to_string(kHeld) + " " + kPackage)
                            .c_str()));
    WriteFile("/tmp/download/LatestRom/filesize", std::to_string(kHeld + kRest));
    // The rest takes about four seconds: longer than the digest of the held part.
    Serve({"--offset", std::to_string(kHeld), "--rate", std::to_string(kRest / 4)});
    auto child = StartDownload();
    ASSERT_TRUE(child->WaitForStatus(Received("3:p:"), 30s));
    const auto began = std::chrono::steady_clock::now();
    if (!commands) {
      // A sixth of the rest comes in well before the held part could have been hashed.
      ASSERT_TRUE(child->WaitForStatus(
          [&](const std::string&) { return FileSize(kPackage) >= kHeld + kRest / 6; }, 30s));
      EXPECT_LT(std::chrono::steady_clock::now() - began, 1500ms);
    }
    std::chrono::steady_clock::duration slowest{};
    size_t cycles = 0;
    for (; commands && child->running() && FileSize(kPackage) < kHeld + kRest * 9 / 10; ++cycles) {
      for (const char* command : {"p", "c"}) {
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(child->SendCommand(std::string(command) + "\n"));
        ASSERT_TRUE(
            child->WaitForStatus(Received(std::string("3:r:") + command + "\n", cycles + 1), 10s));
        slowest = std::max(slowest, std::chrono::steady_clock::now() - sent);
      }
      child->Pump(20ms);
    }
    EXPECT_TRUE(!commands || cycles > 20) << cycles;
    EXPECT_LT(slowest, 100ms)
        << std::chrono::duration_cast<std::chrono::milliseconds>(slowest).count() << " ms";
    Finish(*child, 60s);
    EXPECT_TRUE(
        android::base::EndsWith(child->status(), "3:c:" + harness::Md5Sum(mirror_file) + "\n"))
        << child->status();
  }
}

// A redirect chain across hosts with several addresses, 50 cut connections, and the front end
// sending pause, continue and junk every millisecond until well after the end: every transfer
// goes to the address of the host it asks for, and the package is the mirror's, byte for byte.
TEST_F(DownloadTest, CommandStormThroughDropsAndRedirectsLeavesTheSamePackage) {
  harness::BindHosts(
      "127.0.0.1 localhost\n"
      "127.0.0.2 mirror.yonda.example\n"
      "127.0.0.3 mirror.yonda.example\n"
      "127.0.0.4 mirror2.yonda.example\n"
      "127.0.0.5 mirror3.yonda.example\n");
  CopyPackage("/tmp/harness/mirror3", "/final/rom.zip");
  Serve(
      {"--redirect", std::string(kPackagePath) + "=http://mirror2.yonda.example/pkg/rom.zip",
       "--redirect", "/pkg/rom.zip=http://mirror3.yonda.example/final/rom.zip", "--mirror",
       "mirror3.yonda.example=/tmp/harness/mirror3", "--drop-after", "65536", "--drop-times", "50"},
      "0.0.0.0:80");
  auto child = StartDownload();
  const char* commands[] = {"p\n", "c\n", "junk\n"};
  for (size_t i = 0; child->SendCommand(commands[i % 3]) && child->running(); ++i) {
    child->Pump(1ms);
  }
  Finish(*child);
  const std::string done = "3:c:" + md5_ + "\n";
  EXPECT_EQ(50u, Count(child->status(), "3:f:18\n")) << child->status();
  EXPECT_TRUE(android::base::EndsWith(child->status(), done + done + done)) << child->status();
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
  std::vector<harness::Request> gets = Gets();
  ASSERT_EQ(53u, gets.size());  // two redirects, 50 cut transfers and the whole one
  EXPECT_EQ("127.0.0.2", gets[0].local);
  EXPECT_EQ("mirror2.yonda.example/pkg/rom.zip", gets[1].host + gets[1].path);
  EXPECT_EQ("127.0.0.4", gets[1].local);
  for (size_t i = 2; i < gets.size(); ++i) {
    EXPECT_EQ("mirror3.yonda.example/final/rom.zip", gets[i].host + gets[i].path);
    EXPECT_EQ("127.0.0.5", gets[i].local) << "connection " << i;
  }
  EXPECT_NE(std::string::npos,
            child->out().find("E:Unexception(18) occurred...retry the downloading\n"));
  const size_t redirected =
      child->out().find("D:>> Redirected URL=http://mirror2.yonda.example/pkg/rom.zip\n");
  ASSERT_NE(std::string::npos, redirected);
  EXPECT_NE(std::string::npos, child->out().find("I:>> RomDownload is running...\n", redirected));
  EXPECT_EQ(std::string::npos, child->err().find("Sanitizer")) << child->err();
}

// Every retry runs in the same frame on the same threads, however many there are.
TEST_F(DownloadTest, RefusedConnectionsAreRetriedWithoutGrowingStackOrThreads) {
  auto child = StartDownload();  // Nothing listens on the mirror's port.
  size_t seen = 0, scanned = 0;
  auto refused = [&](size_t times) {
    return [&, times](const std::string& status) {
      seen += Count(status.substr(scanned, status.rfind('\n') + 1 - scanned), "3:f:7\n");
      scanned = status.rfind('\n') + 1;
      return seen >= times;
    };
  };
  ASSERT_TRUE(child->WaitForStatus(refused(20), 60s));
  const std::string threads = ProcessStatus(child->pid(), "Threads");
  const std::string stack = ProcessStatus(child->pid(), "VmStk");
  ASSERT_TRUE(child->WaitForStatus(refused(20000), 600s)) << seen;
  EXPECT_EQ(threads, ProcessStatus(child->pid(), "Threads"));
  EXPECT_EQ(stack, ProcessStatus(child->pid(), "VmStk"));
}

// A mirror cannot make the download read local files or speak another protocol.
TEST_F(DownloadTest, RedirectsAwayFromHttpFailAndAreRetried) {
  for (const char* target : {"file:///dev/zero", "file:///etc/hostname", "dict://127.0.0.1/x"}) {
    SCOPED_TRACE(target);
    unlink(kPackage);
    // The dictionary port, to see whether anything connects to it.
    android::base::unique_fd dict(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(2628);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int one = 1;
    setsockopt(dict.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    ASSERT_EQ(0, bind(dict.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(dict.get(), 8));
    Serve({"--redirect", std::string(kPackagePath) + "=" + target});

    auto child = StartDownload();
    ASSERT_TRUE(child->WaitForStatus(Received("3:f:1\n", 5), 30s)) << child->status();
    EXPECT_TRUE(child->running());
    EXPECT_EQ(0, FileSize(kPackage));
    EXPECT_EQ(-1, accept(dict.get(), nullptr, nullptr));
    for (const harness::Request& r : server_->requests()) EXPECT_EQ(kPackagePath, r.path);
  }
}

// Descriptor numbers that are not open leave the status streams null: written to as nowhere.
TEST_F(DownloadTest, StagesRunToTheirEndWithoutStatusStreams) {
  UseFullDevice();
  WriteFile("/tmp/harness/answer.json",
            R"({"LatestRom":{"version":"V2.0","filename":"rom.zip","filesize":"6M","md5":"m",
                "Validate":"v"},"CurrentRom":{"version":"V1"},
                "MirrorList":["http://mirror.yonda.example/base"]})");
  Serve({"--answer", "/tmp/harness/answer.json"});
  auto first = RunRaw({"--run_from_fork", "--first_stage", "50", "51"});
  EXPECT_NE(std::string::npos, first->out().find("I:this is the last task, byebye\n"));
  unlink(kPackage);
  auto second = RunRaw({"--run_from_fork", "--second_stage", "50", "51", "http://",
                        "mirror.yonda.example", kPackagePath});
  EXPECT_NE(std::string::npos, second->out().find("I:3 is the last task, byebye\n"));
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
}

TEST_F(DownloadTest, BrokenSizeFileEndsTheProcessBeforeAnyRequest) {
  Serve({});
  WriteFile("/tmp/download/LatestRom/filesize", "");
  auto child = StartDownload();
  int status = child->WaitForExit(60s);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_NE(std::string::npos, child->err().find("stoul")) << child->err();
  EXPECT_TRUE(Gets().empty());
  EXPECT_EQ("", child->status());
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The second stage against a local package mirror: progress and speed, the front end's
// commands, resume, retry and redirect.

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using namespace std::chrono_literals;
using bundlerun_parent::StatusParser;
using bundlerun_parent::StatusRecord;
using harness::ReadFile;
using harness::UpdateServer;
using harness::WriteFile;

constexpr char kPackage[] = "/tmp/secure_update.zip";
constexpr char kMirror[] = "/tmp/harness/mirror";
constexpr char kPackagePath[] = "/base/V2.0/rom.zip";
constexpr int64_t kPackageSize = 6 * 1024 * 1024;

int64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
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

class DownloadTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    UseFullDevice();
    system("mkdir -p /tmp/harness/mirror/base/V2.0 /tmp/harness/mirror2/pkg");
    ASSERT_EQ(0, system("head -c 6291456 /dev/urandom > /tmp/harness/mirror/base/V2.0/rom.zip"));
    md5_ = harness::Md5Sum(std::string(kMirror) + kPackagePath);
    WriteFile("/tmp/harness/answer.json",
              R"({"LatestRom":{"version":"V2.0","filename":"rom.zip","filesize":"6M","md5":")" +
                  md5_ +
                  R"(","Validate":"v"},"CurrentRom":{"version":"V1"},
                  "MirrorList":["http://mirror.yonda.example/base"]})");
  }

  // Starts the server with |args| and runs the first stage, which lays the ROM out.
  void Serve(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"--answer", "/tmp/harness/answer.json", "--packages", kMirror};
    all.insert(all.end(), args.begin(), args.end());
    server_.reset();
    server_ = std::make_unique<UpdateServer>(all);
    ASSERT_TRUE(server_->ok());
    auto first = StartStage("--first_stage");
    Finish(*first);
    ASSERT_EQ("0:s\n1:s\n2:s:0", first->status());
  }

  std::unique_ptr<bundlerun_parent::Child> StartDownload(
      const std::string& host = "mirror.yonda.example") {
    return StartStage("--second_stage", {"http://", host, kPackagePath});
  }

  // Returns the package GETs the server received.
  std::vector<harness::Request> Gets() {
    std::vector<harness::Request> gets;
    for (const harness::Request& r : server_->requests()) {
      if (r.method == "GET") gets.push_back(r);
    }
    return gets;
  }

  std::string md5_;
  std::unique_ptr<UpdateServer> server_;
};

TEST_F(DownloadTest, ReportsRisingPercentAndSpeedAndEndsWithTheDigest) {
  Serve({"--rate", "3145728"});
  auto child = StartDownload();
  Finish(*child);
  std::vector<StatusRecord> records = Records(child->status());
  ASSERT_FALSE(records.empty()) << child->status();
  EXPECT_EQ("3:c:" + md5_, records.back().text());
  EXPECT_TRUE(records.back().terminated);
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
  EXPECT_EQ(kPackageSize, FileSize(kPackage));
  EXPECT_NE(std::string::npos, child->out().find("I:>> Totally 6291456 bytes downloaded\n"));
  ASSERT_EQ(1u, Gets().size());
  EXPECT_EQ("mirror.yonda.example", Gets()[0].host);
}

TEST_F(DownloadTest, PauseHaltsTheTransferUntilContinue) {
  Serve({"--rate", "1048576"});
  auto child = StartDownload();
  ASSERT_TRUE(child->WaitForStatus(ReachedPercent(10), 30s));
  ASSERT_TRUE(child->SendCommand("pause\n"));
  ASSERT_TRUE(child->WaitForStatus(
      [](const std::string& s) { return s.find("3:r:p\n") != std::string::npos; }, 10s));
  // Bytes already read off the socket when the pause took hold may still be counted once.
  for (int i = 0; i < 15; ++i) child->Pump(100ms);
  const int64_t paused_at = FileSize(kPackage);
  const size_t status_at = child->status().size();
  for (int i = 0; i < 15; ++i) child->Pump(100ms);
  EXPECT_EQ(paused_at, FileSize(kPackage));
  EXPECT_EQ(std::string::npos, child->status().find(":p:", status_at)) << status_at << "\n"
                                                                       << child->status();

  ASSERT_TRUE(child->SendCommand("c\n"));
  Finish(*child);
  EXPECT_NE(std::string::npos, child->status().find("3:r:p\n", 0));
  EXPECT_NE(std::string::npos, child->status().find("3:r:c\n", status_at));
  EXPECT_TRUE(android::base::EndsWith(child->status(), "3:c:" + md5_ + "\n"));
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
  EXPECT_NE(std::string::npos, child->out().find("E:---->receive command: pause\n"));
}

TEST_F(DownloadTest, StopEndsTheDownloadWithoutRetry) {
  Serve({"--rate", "1048576"});
  auto child = StartDownload();
  ASSERT_TRUE(child->WaitForStatus(ReachedPercent(5), 30s));
  ASSERT_TRUE(child->SendCommand("x\n"));
  ASSERT_TRUE(child->SendCommand("s\n"));
  Finish(*child);
  EXPECT_TRUE(android::base::EndsWith(child->status(), "\n3:r:s")) << child->status();
  EXPECT_EQ(std::string::npos, child->status().find(":f:"));
  EXPECT_EQ(1u, Gets().size());
  EXPECT_LT(FileSize(kPackage), kPackageSize);
  EXPECT_NE(std::string::npos, child->out().find("W:RomDownload INVALID COMMAND: x\n"));
  EXPECT_NE(std::string::npos,
            child->out().find("E: CURLE_ABORTED_BY_CALLBACK lead to download stopped\n"));
}

TEST_F(DownloadTest, PartialFileIsAppendedToAndCountedInThePercent) {
  constexpr int64_t kHeld = 2 * 1024 * 1024;
  Serve({"--offset", std::to_string(kHeld)});
  ASSERT_EQ(0, system(("head -c " + std::to_string(kHeld) + " " + kMirror + kPackagePath + " > " +
                       kPackage)
                          .c_str()));
  auto child = StartDownload();
  Finish(*child);
  std::vector<StatusRecord> records = Records(child->status());
  ASSERT_FALSE(records.empty());
  ASSERT_EQ('p', records[0].letter) << child->status();
  EXPECT_GE(std::stoi(records[0].payload), 33);  // The held third counts.
  EXPECT_EQ("3:c:" + md5_, records.back().text());
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
  EXPECT_NE(std::string::npos, child->out().find("lastresume=2097152"));
}

TEST_F(DownloadTest, DroppedConnectionIsReportedAndRetried) {
  Serve({"--drop-after", "1048576", "--drop-always"});
  auto child = StartDownload();
  Finish(*child);
  const std::string& status = child->status();
  EXPECT_NE(std::string::npos, status.find("3:f:18\n")) << status;
  EXPECT_TRUE(android::base::EndsWith(status, "3:c:" + md5_ + "\n")) << status;
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
  EXPECT_EQ(6u, Gets().size());
  EXPECT_NE(std::string::npos,
            child->out().find("E:Unexception(18) occurred...retry the downloading\n"));
}

TEST_F(DownloadTest, RedirectStartsAgainOnTheNewHost) {
  ASSERT_EQ(0, system("cp /tmp/harness/mirror/base/V2.0/rom.zip /tmp/harness/mirror2/pkg/rom.zip"));
  Serve({"--redirect", std::string(kPackagePath) + "=http://mirror2.yonda.example/pkg/rom.zip",
         "--mirror", "mirror2.yonda.example=/tmp/harness/mirror2"});
  auto child = StartDownload();
  Finish(*child);
  std::vector<harness::Request> gets = Gets();
  ASSERT_EQ(2u, gets.size());
  EXPECT_EQ("mirror.yonda.example" + std::string(kPackagePath), gets[0].host + gets[0].path);
  EXPECT_EQ("mirror2.yonda.example/pkg/rom.zip", gets[1].host + gets[1].path);
  EXPECT_EQ(md5_, harness::Md5Sum(kPackage));
  // The restarted transfer completes, then the redirected one returns and completes too.
  const std::string done = "3:c:" + md5_ + "\n";
  EXPECT_TRUE(android::base::EndsWith(child->status(), done + done)) << child->status();
  EXPECT_NE(std::string::npos,
            child->out().find("D:>> Redirected URL=http://mirror2.yonda.example/pkg/rom.zip\n"));
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

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The first task of the first stage against the local update server: the clock, the header
// file, the property, and the outcomes the front end sees when the server misbehaves.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using namespace std::chrono_literals;
using harness::ReadFile;
using harness::UpdateServer;

constexpr char kPermissionDenied[] = " 0 1 Operation not permitted\n";

class ServerTimeTest : public harness::SandboxTest {
 protected:
  bool TimeSyncReady() {
    return ReadFile(props_.path()).find("\nyonda.timesync.ready=1\n") != std::string::npos;
  }
};

TEST_F(ServerTimeTest, ClockIsSetFromTheLastHeaderLineThatNamesDate) {
  struct Case {
    const char* name;
    std::vector<std::string> server;
    std::string clock_line;
  } cases[] = {
      {"one date",
       {"--date", "Sun, 06 Nov 1994 08:49:37 GMT"},
       "784111777" + std::string(kPermissionDenied)},
      {"no date sets the epoch", {"--no-date"}, "0" + std::string(kPermissionDenied)},
      {"the last date wins",
       {"--date", "Sun, 06 Nov 1994 08:49:37 GMT", "--header",
        "Date: Mon, 07 Nov 1994 08:49:37 GMT"},
       "784198177" + std::string(kPermissionDenied)},
      // "X-Date-Source" names Date too; its text from the seventh character does not parse.
      {"a header that merely contains Date",
       {"--date", "Sun, 06 Nov 1994 08:49:37 GMT", "--header",
        "X-Date-Source: Sun, 06 Nov 1994 08:49:37 GMT"},
       "-1 0 22 Invalid argument\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    props_.Remove("yonda.timesync.ready");
    UpdateServer server(c.server);
    ASSERT_TRUE(server.ok());
    auto child = StartCommand("0");
    Finish(*child);
    const std::string& out = child->out();
    EXPECT_NE(std::string::npos, out.find("\n" + c.clock_line)) << out;
    EXPECT_NE(std::string::npos, out.find("\n0:s\n")) << out;
    EXPECT_EQ(std::string::npos, out.find("\n1:")) << out;  // Only the server time task ran.
    EXPECT_TRUE(TimeSyncReady());
    EXPECT_EQ("0", ReadFile("/tmp/dgq/events/download_status"));
    EXPECT_EQ("SyncServerTime", ReadFile("/tmp/download/status"));

    const std::string header_file = ReadFile("/cache/yonda/time");
    EXPECT_EQ(0u, header_file.find("HTTP/1.1 200 OK\r\n")) << header_file;
    for (size_t i = 0; i + 1 < c.server.size(); i += 2) {
      if (c.server[i] == "--header") {
        EXPECT_NE(std::string::npos, header_file.find(c.server[i + 1] + "\r\n"));
      }
    }

    std::vector<harness::Request> requests = server.requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("HEAD", requests[0].method);
    EXPECT_EQ("/", requests[0].path);
    EXPECT_EQ(TEST_UPDATE_HOST, requests[0].host);
    EXPECT_EQ("no-cache", requests[0].header("Cache-Contorl"));
    EXPECT_EQ("application/x-www-form-urlencoded", requests[0].header("Content-type"));
  }
}

TEST_F(ServerTimeTest, TransferFailuresEndTheStageWithTheirStatusLine) {
  struct Case {
    const char* name;
    std::vector<std::string> server;  // empty: nothing listens
    std::string status;
    std::string event;
  } cases[] = {
      {"nothing listens", {}, "0:f:7\n", "7"},
      {"server slower than five seconds",
       {"--delay", "/=6500"},
       "0:f:CURLE_OPERATION_TIMEDOUT\n",
       "28"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<UpdateServer> server;
    if (!c.server.empty()) {
      server = std::make_unique<UpdateServer>(c.server);
      ASSERT_TRUE(server->ok());
    }
    auto child = StartStage("--first_stage");
    Finish(*child);
    EXPECT_EQ(c.status, child->status());
    EXPECT_EQ(c.event, ReadFile("/tmp/dgq/events/download_status"));
    EXPECT_FALSE(TimeSyncReady());
    EXPECT_FALSE(harness::Exists("/tmp/download/status"));
  }
}

TEST_F(ServerTimeTest, UnknownUpdateHostFailsQuietlyForADomesticBuild) {
  harness::BindHosts("127.0.0.1 localhost\n");
  UpdateServer server({});
  ASSERT_TRUE(server.ok());
  auto child = StartStage("--first_stage");
  Finish(*child);
  EXPECT_EQ("", child->status());
  EXPECT_NE(std::string::npos, child->out().find("E:operator()Could not resolve host: " +
                                                 std::string(TEST_UPDATE_HOST) + "(6), retry\n"))
      << child->out();
  EXPECT_EQ("6", ReadFile("/tmp/dgq/events/download_status"));
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(ServerTimeTest, UnknownHostOfAnInternationalBuildIsReachedAtTheFixedAddress) {
  props_.Set("ro.yonda.build.international", "1");
  harness::BindHosts("127.0.0.1 localhost\n");
  // The fixed address lives on this sandbox's loopback, where the server answers.
  ASSERT_EQ(0, system(("ip addr add " + std::string(TEST_FALLBACK_IPV4) + "/32 dev lo").c_str()));
  UpdateServer server({"--date", "Sun, 06 Nov 1994 08:49:37 GMT"}, "0.0.0.0:80");
  ASSERT_TRUE(server.ok());
  auto child = StartCommand("0");
  Finish(*child);
  EXPECT_NE(std::string::npos, child->out().find("W:No hostent resolved, and try the fixed: " +
                                                 std::string(TEST_INTL_UPDATE_HOST) +
                                                 ":80:" + TEST_FALLBACK_IPV4 + "\n"));
  EXPECT_NE(std::string::npos, child->out().find("\n0:s\n"));
  std::vector<harness::Request> requests = server.requests();
  ASSERT_EQ(1u, requests.size());
  EXPECT_EQ(TEST_INTL_UPDATE_HOST, requests[0].host);
}

}  // namespace

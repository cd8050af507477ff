/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The faults of the local update server's package mirror, as an HTTP client on the desk (curl)
// sees them: a reset, 503 answers and a stall in the middle of a body.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "harness/harness.h"

namespace {

constexpr size_t kPackageSize = 1 << 20;

class UpdateServerTest : public harness::SandboxTest {};

TEST_F(UpdateServerTest, MirrorFaultsReachTheClientAsTheyAreNamed) {
  mkdir(harness::kMirrorDir, 0755);
  std::string package(kPackageSize, '\0');
  for (size_t i = 0; i < package.size(); ++i) package[i] = static_cast<char>(i * 7 + i / 251);
  harness::WriteFile(std::string(harness::kMirrorDir) + "/rom.zip", package);
  // Each request prints "<status> <body bytes received> <curl's exit status>": 56 is a reset,
  // 18 a body that ended early, 28 the time limit.
  const std::string curl =
      "curl -s --noproxy '*' -o /dev/null -w '%{http_code} %{size_download}' --max-time 2 ";
  const std::string get = curl + "http://127.0.0.1/rom.zip; echo \" $?\"; ";
  const std::string head = curl + "-I http://127.0.0.1/rom.zip; echo \" $?\"; ";
  const std::string whole = "200 " + std::to_string(kPackageSize) + " 0\n";
  struct Case {
    std::vector<std::string> server_args;
    std::string requests;
    std::string seen;
  } cases[] = {
      // The bytes before the offset arrive, then a reset and no FIN; only the first transfer.
      {{"--reset-at", "300000"}, get + get, "200 300000 56\n" + whole},
      // The probe and the download count alike.
      {{"--unavailable", "2"}, head + get + get, "503 0 0\n503 12 0\n" + whole},
      // The body stops at the offset and the connection stays open until curl gives up.
      {{"--stall-at", "200000"}, get, "200 200000 28\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.server_args[0]);
    Serve(c.server_args);
    EXPECT_EQ(c.seen, harness::Output(c.requests));
  }
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The download's arithmetic and parsing: the progress callback's whole percents of the package,
// each written once, and the speed since the last sample, both counted from what the file held
// when the transfer began; the split of a redirect address; and the front end's command lines.

#include "request/romdownload.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <chrono>
#include <string>
#include <vector>

#include "request/command_listener.h"

namespace {

constexpr int64_t kMiB = 1024 * 1024;

int64_t SecondsAgo(int seconds) {
  const auto now = std::chrono::steady_clock::now() - std::chrono::seconds(seconds);
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count();
}

// Feeds the byte counts of one transfer to |state|; returns what the front end was sent.
std::string Feed(DownloadProgress* state, const std::vector<int64_t>& counts) {
  char* buffer = nullptr;
  size_t size = 0;
  state->status = open_memstream(&buffer, &size);
  for (int64_t count : counts) RomDownload::xferinfo(state, 0, count, 0, 0);
  fclose(state->status);
  state->status = nullptr;
  std::string sent(buffer, size);
  free(buffer);
  return sent;
}

TEST(DownloadProgressTest, EachWholePercentOfThePackageIsSentOnce) {
  struct Case {
    int64_t total;
    int64_t resume;
    std::vector<int64_t> counts;
    std::string sent;
  } cases[] = {
      {1000, 0, {9, 10, 19, 20, 20, 999}, "3:p:1\n3:p:2\n3:p:99\n"},
      {1000, 500, {0, 5, 10}, "3:p:50\n3:p:51\n"},  // Nothing new at the first call.
      {1000, 400, {600}, ""},                       // The whole package: nothing to say.
      {99, 0, {50}, ""},                            // Under 100 bytes there are no percents.
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.sent);
    DownloadProgress state;
    state.totalSize = c.total;
    state.resumeOffset = c.resume;
    state.sampleTime = SecondsAgo(0);
    EXPECT_EQ(c.sent, Feed(&state, c.counts));
  }
}

TEST(DownloadProgressTest, SpeedCountsTheBytesSinceTheLastSample) {
  DownloadProgress state;
  state.totalSize = 100 * kMiB;
  state.resumeOffset = 4 * kMiB;
  // Two seconds after the transfer began, 5 MiB are in the file; two more seconds, 7 MiB.
  for (const auto& [count, bytes] : {std::pair{1 * kMiB, 5 * kMiB}, {3 * kMiB, 2 * kMiB}}) {
    state.sampleTime = SecondsAgo(2);
    const std::string sent = Feed(&state, {count});
    const size_t at = sent.find("3:s:");
    ASSERT_NE(std::string::npos, at) << sent;
    const uint64_t speed = std::stoull(sent.substr(at + 4));
    EXPECT_LE(speed, static_cast<uint64_t>(bytes / 2)) << sent;
    EXPECT_GE(speed, static_cast<uint64_t>(bytes / 3)) << sent;
  }
}

TEST(RedirectSplitTest, SchemeHostAndPathOfTheAddress) {
  struct Case {
    const char* address;
    std::vector<std::string> parts;  // scheme, host, path
  } cases[] = {
      {"http://mirror2.yonda.example/pkg/rom.zip?x=1",
       {"http://", "mirror2.yonda.example", "/pkg/rom.zip?x=1"}},
      {"http://mirror2.yonda.example", {"http://", "", ""}},  // No path: no host either.
      {"/pkg/rom.zip", {"", "", "/pkg/rom.zip"}},
  };
  for (const Case& c : cases) {
    const URLWrapper url = SplitRedirect(c.address);
    EXPECT_EQ(c.parts, (std::vector<std::string>{url.scheme, url.host, url.path})) << c.address;
  }
}

TEST(CommandLineSplitterTest, LinesAreCutAsFgetsWithA1024ByteBufferCutsThem) {
  const std::string long_line(1023, 'x');
  struct Case {
    std::string stream;
    std::vector<std::string> lines;
  } cases[] = {
      {"p\nc\n", {"p", "c"}},
      {long_line + "\n", {long_line, ""}},
      {std::string("s\0junk\nc", 9), {"s", "c"}},  // The last line ends with the stream.
  };
  for (const Case& c : cases) {
    CommandLineSplitter splitter;
    splitter.Append(c.stream);
    std::vector<std::string> lines;
    while (std::optional<std::string> line = splitter.Next()) lines.push_back(*line);
    if (std::optional<std::string> rest = splitter.Finish()) lines.push_back(*rest);
    EXPECT_EQ(c.lines, lines) << c.stream.size();
  }
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The parent library's reading of the status channel, whose records may end without a line feed.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bundlerun_child.h"

namespace {

TEST(StatusParserTest, SplitsRecordsIncludingTheTwoWithoutLineEnd) {
  bundlerun_parent::StatusParser parser;
  std::vector<std::string> seen;
  auto take = [&](const std::vector<bundlerun_parent::StatusRecord>& records) {
    for (const auto& r : records) seen.push_back(r.text() + (r.terminated ? "|" : "#"));
  };
  take(parser.Feed("0:s\n1:"));
  take(parser.Feed("f:CURLE_OPERATION_TIMEDOUT\n2:s:0"));
  EXPECT_EQ((std::vector<std::string>{"0:s|", "1:f:CURLE_OPERATION_TIMEDOUT|"}), seen);
  take(parser.Feed("3:p:1\n3:s:1048576\n3:r:p\n3:r:s3:c:abc\n3:r:s"));
  take(parser.Finish());
  EXPECT_EQ((std::vector<std::string>{"0:s|", "1:f:CURLE_OPERATION_TIMEDOUT|", "2:s:0#", "3:p:1|",
                                      "3:s:1048576|", "3:r:p|", "3:r:s#", "3:c:abc|", "3:r:s#"}),
            seen);
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "request/installer.h"

#include <gtest/gtest.h>

#include <string>

#include "harness/harness.h"

namespace {

TEST(UpdaterLineTest, ValidLinesAreQuietAndTheRestIsLogged) {
  struct Case {
    const char* line;
    const char* log;
  } cases[] = {
      {"progress 0.5 10\n", ""},
      {"progress 0.5 0x10\n", ""},
      {"progress 1 0X7fffffff\n", ""},
      {"progress 0.25 -3\n", ""},
      {"progress 0.5\n", "E:invalid \"progress\" parameters: progress 0.5\n"},
      {"progress x 10\n", "E:invalid \"progress\" parameters: progress x 10\n"},
      {"progress 0.5 10s\n", "E:invalid \"progress\" parameters: progress 0.5 10s\n"},
      {"progress 0.5 2147483648\n", "E:invalid \"progress\" parameters: progress 0.5 2147483648\n"},
      {"progress 0.5 0x80000000\n", "E:invalid \"progress\" parameters: progress 0.5 0x80000000\n"},
      {"progress 0.5 10 1\n", "E:invalid \"progress\" parameters: progress 0.5 10 1\n"},
      {"log hello there\n", ""},
      {"log\n", "E:invalid \"log\" parameters: log\n"},
      {"ui_print hello\n", "E:ui_print: hello\n"},
      {"ui_print  two  blanks\n", "E:ui_print:  two  blanks\n"},
      {"ui_print\n", "E:ui_print: \n"},
      {"set_progress 0.5\n", "E:unknown command [set_progress]\n"},
      {"\n", "E:unknown command []\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    harness::LogCapture log;
    HandleUpdaterLine(c.line);
    EXPECT_EQ(c.log, log.text());
  }
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The front end's command stream during the download, split into command lines. The listener
// reads whatever the pipe holds, so the stream is split twice, as 1024-byte reads and byte by
// byte, and both must give the same lines, each short enough for the front end's fgets and
// without a line feed or a zero byte in it.

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "request/command_listener.h"

namespace {

void CheckLine(const std::string& line) {
  if (line.size() >= CommandLineSplitter::kLineSize ||
      line.find_first_of(std::string_view("\n\0", 2)) != std::string::npos) {
    abort();
  }
}

// Returns the lines of |stream| when it arrives in reads of |chunk| bytes and then ends.
std::vector<std::string> Split(std::string_view stream, size_t chunk) {
  CommandLineSplitter splitter;
  std::vector<std::string> lines;
  for (size_t at = 0; at < stream.size(); at += chunk) {
    splitter.Append(stream.substr(at, chunk));
    while (std::optional<std::string> line = splitter.Next()) {
      CheckLine(*line);
      lines.push_back(std::move(*line));
    }
  }
  if (std::optional<std::string> rest = splitter.Finish()) {
    CheckLine(*rest);
    lines.push_back(std::move(*rest));
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view stream(reinterpret_cast<const char*>(data), size);
  if (Split(stream, CommandLineSplitter::kLineSize) != Split(stream, 1)) abort();
  return 0;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update server's command line.

#pragma once

#include <stdint.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

struct ServerOptions {
  std::string address = "127.0.0.1";
  int port = 80;
  std::string log_path;
  int ready_fd = -1;                     // told "ready" once the server listens
  std::map<std::string, int> delays_ms;  // path ("*" for every path) to delay

  // Server time.
  std::optional<std::string> date;  // the Date header; unset: the current time
  bool no_date = false;
  std::vector<std::pair<std::string, std::string>> root_headers;

  // Update query.
  std::string answer_path;
  bool frame = false;
  bool break_base64 = false;

  // Package mirror.
  std::string packages_dir;
  std::map<std::string, std::string> mirrors;  // Host header to directory
  uint64_t rate = 0;                           // bytes per second; 0: unthrottled
  uint64_t offset = 0;
  uint64_t drop_after = 0;            // 0: never
  uint64_t drop_times = 1;            // transfers of each file that are cut; 0: every one
  std::vector<uint64_t> drop_at;      // file offsets where a transfer is cut, once each
  std::optional<uint64_t> vanish_at;  // file offset where the server cuts and goes away
  std::optional<uint64_t> stall_at;   // file offset where a transfer stops sending, once
  std::optional<uint64_t> reset_at;   // file offset where a transfer ends with a reset, once
  uint64_t unavailable = 0;           // package requests answered 503 first
  std::string remainder_of;           // the device's package: bodies start at its size
  std::map<std::string, std::string> redirects;
  std::vector<std::string> not_found;
};

// Parses the command line into |options|. Returns -1 when the server goes on; otherwise the
// status to exit with (0 after --help or --version, 64 after a usage error).
int ParseOptions(int argc, char** argv, ServerOptions* options);

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// A package mirror. Devices never ask for a byte range: a mirror that lost a device half-way
// serves the rest of the file under the same address, so each file has a resume position.

#pragma once

#include <httplib.h>
#include <stdint.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "options.h"

class Mirror {
 public:
  explicit Mirror(const ServerOptions& options) : options_(options), rate_(options.rate) {}

  // Answers a GET or HEAD of a package path.
  void Serve(const httplib::Request& request, httplib::Response& response);

  // Called by a transfer that stopped after |sent| bytes of |file| (from its resume position).
  void OnDropped(const std::string& file, uint64_t position);
  // Called by a transfer that sent |file| to its end.
  void OnCompleted(const std::string& file);

  // Bytes per second of every package body, those under way included; 0: unthrottled.
  uint64_t rate() const { return rate_; }
  // Serves every body unthrottled from now on.
  void Unthrottle() { rate_ = 0; }

 private:
  // Returns the directory that serves |host|, or an empty string.
  std::string DirectoryFor(const std::string& host) const;
  // Returns where the next transfer of |file| starts.
  uint64_t ResumePosition(const std::string& file);
  // Returns whether the next transfer of |file| is to be cut.
  bool ShouldDrop(const std::string& file);

  const ServerOptions& options_;
  std::mutex lock_;
  std::map<std::string, uint64_t> positions_;
  std::map<std::string, uint64_t> dropped_;  // transfers cut so far, per file
  std::atomic<uint64_t> rate_;
};

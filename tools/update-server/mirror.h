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
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "options.h"

class Mirror {
 public:
  explicit Mirror(const ServerOptions& options) : options_(options), rate_(options.rate) {}

  // Answers a GET or HEAD of a package path.
  void Serve(const httplib::Request& request, httplib::Response& response);

  // What happens to a transfer at a byte of its file that the options name.
  enum class Break { kNone, kDrop, kVanish, kStall, kReset };

  // Called by a transfer that was cut at |position| of |file|; |vanish|: the server goes away.
  void OnDropped(const std::string& file, uint64_t position, bool vanish);
  // Holds a stalled transfer until the server stops.
  void Stall();
  // Ends the connection from |remote_port| to |local_port| with a TCP reset and no FIN, once the
  // device has acknowledged what was sent (or after 2 s).
  static void Reset(int remote_port, int local_port);
  // Ends every stall: the server is stopping.
  void Release();
  // Called by a transfer that sent |file| to its end.
  void OnCompleted(const std::string& file);

  // Bytes per second of every package body, those under way included; 0: unthrottled.
  uint64_t rate() const { return rate_; }
  // Serves every body unthrottled from now on.
  void Unthrottle() { rate_ = 0; }
  // |vanish| makes the server stop listening; called before the transfer's connection closes.
  void SetVanish(std::function<void()> vanish) { vanish_ = std::move(vanish); }

 private:
  // Returns the directory that serves |host|, or an empty string.
  std::string DirectoryFor(const std::string& host) const;
  // Returns where the next transfer of |file| starts.
  uint64_t ResumePosition(const std::string& file);
  // Returns how many bytes into a transfer of |file| from |start| to |end| it breaks, and how;
  // 0: never.
  uint64_t BreakAt(const std::string& file, uint64_t start, uint64_t end, Break* how);
  // Returns true when this package request is answered "503 Service Unavailable".
  bool Unavailable();

  const ServerOptions& options_;
  std::mutex lock_;
  std::map<std::string, uint64_t> positions_;
  std::map<std::string, uint64_t> dropped_;  // transfers cut so far, per file
  std::set<uint64_t> offsetsCut_;            // the named offsets taken by a transfer already
  uint64_t unavailable_ = 0;                 // requests answered 503 so far
  bool released_ = false;
  std::condition_variable stalls_;
  std::atomic<uint64_t> rate_;
  std::function<void()> vanish_;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// What the front end shows: on a terminal, sections, events and a live progress bar; otherwise
// one plain line per event, for scripts and CI.

#pragma once

#include <stdint.h>

#include <memory>
#include <string>

// The download as the front end knows it from the status channel and the package file.
struct DownloadView {
  int percent = 0;
  uint64_t bytes = 0;
  uint64_t total = 0;
  uint64_t speed = 0;  // bytes per second, as last reported
  int retries = 0;
  std::string state = "downloading";  // or "paused", "stopping"
};

class Display {
 public:
  // |terminal|: draw for a terminal; |verbose|: show bundlerun's log lines too; |color|: set
  // titles in bold and log lines dim.
  static std::unique_ptr<Display> Create(bool terminal, bool verbose, bool color);
  virtual ~Display() = default;

  // Starts a part of the update; |tag| prefixes plain lines ("stage1"), |title| heads it.
  virtual void Section(const std::string& tag, const std::string& title) = 0;
  // Shows one event of the current part.
  virtual void Event(const std::string& text) = 0;
  // Shows one log line of bundlerun (only when verbose).
  virtual void Log(const std::string& line) = 0;
  // Shows the download as it stands now.
  virtual void Progress(const DownloadView& view) = 0;
  // Ends the progress display.
  virtual void EndProgress() = 0;
};

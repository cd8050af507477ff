/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// What the front end shows of the record: on a terminal, sections, events and a live progress
// bar fitted to the terminal's width; otherwise one plain line per event, for scripts and CI.

#pragma once

#include <memory>
#include <string>

#include "record.h"

class Display : public RecordListener {
 public:
  // |terminal|: draw for a terminal; |verbose|: show bundlerun's log lines too; |color|: set
  // titles in bold and log lines dim.
  static std::unique_ptr<Display> Create(bool terminal, bool verbose, bool color);

  void OnEvent(const Event& event) override;
  void OnProgress(const DownloadState& download) override;
  void OnLogLine(double t, const std::string& line) override;

  // Shows one line of the current part that is not an event of the record.
  virtual void ShowLine(const std::string& text) = 0;

 protected:
  // Starts a part of the update; |tag| prefixes plain lines ("stage1"), |title| heads it.
  virtual void ShowSection(const std::string& tag, const std::string& title) = 0;
  // Shows one log line of bundlerun (only when verbose).
  virtual void ShowLog(const std::string& line) = 0;
  // Shows the download as it stands now.
  virtual void ShowProgress(const DownloadState& download) = 0;
  // Ends the progress display.
  virtual void EndProgress() = 0;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// One whole update driven the way the boot environment's front end drives bundlerun: stage one,
// the offered ROM, stage two with its commands, the integrity check and the installer.

#pragma once

#include <stdio.h>

#include <memory>
#include <string>

#include "bundlerun_child.h"
#include "desk_command_line.h"
#include "display.h"
#include "rom_description.h"

// Exit statuses of bundlerun-ui.
enum UiExit {
  kUiDone = 0,             // installed, or no ROM offered
  kUiStageFailed = 1,      // a stage ended without its result
  kUiPackageMismatch = 2,  // the package's digest is not the ROM's
  kUiInstallFailed = 3,    // the installer could not run
  kUiStopped = 4,          // the download was stopped on request
  kUiUsage = kExitUsage,  // the command line cannot be used
};

struct UiOptions {
  std::string bundlerun;
  std::string log_path;
  bool terminal = false;
  bool color = false;
  bool verbose = false;
  bool install = true;
  int stop_at = -1;  // send "stop" once the download reaches this percent
};

class UpdateSession {
 public:
  UpdateSession(const UiOptions& options, Display& display, FILE* log);

  // Runs the whole update; returns a UiExit.
  int Run();

 private:
  // Runs stage one; returns true when a ROM is offered (|failed| tells a failure from no ROM).
  bool StageOne(bool* failed);
  // Shows the offered ROM and chooses its address; returns false when none can be used.
  bool ShowRom(RomDescription* rom, PackageAddress* address);
  // Downloads the package; returns a UiExit.
  int StageTwo(const RomDescription& rom, const PackageAddress& address);
  // Runs the package's installer; returns a UiExit.
  int Install();

  // Reads what |child| wrote since the last call: log lines to the log (and the display when
  // verbose), status records to the caller. Returns the new status records.
  std::vector<bundlerun_parent::StatusRecord> Drain(bundlerun_parent::Child& child);
  // Reads the last status records when |child| has ended, and says how it ended.
  std::vector<bundlerun_parent::StatusRecord> Finish(bundlerun_parent::Child& child);
  // Handles one log line of bundlerun (standard output).
  void OnLogLine(const std::string& line);
  // Starts a section of the log and forgets what the previous child wrote.
  void BeginLogSection(const std::string& title);

  const UiOptions& options_;
  Display& display_;
  FILE* log_;
  std::string scratch_dir_;
  std::string package_path_;
  bundlerun_parent::StatusParser parser_;
  size_t status_seen_ = 0;
  size_t out_seen_ = 0;
  size_t err_seen_ = 0;
  std::string partial_line_;
  // Install state, filled from log lines.
  bool cannot_run_ = false;
  bool installer_done_ = false;
  bool installing_ = false;
};

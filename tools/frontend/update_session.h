/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// One whole update driven the way the boot environment's front end drives bundlerun: stage one,
// the offered ROM, stage two with its commands, the integrity check and the installer. Everything
// it learns goes into the session's record.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bundlerun_child.h"
#include "desk_command_line.h"
#include "record.h"
#include "rom_description.h"

// Exit statuses of bundlerun-ui.
enum UiExit {
  kUiDone = 0,             // installed, or no ROM offered
  kUiStageFailed = 1,      // a stage ended without its result
  kUiPackageMismatch = 2,  // the package's digest is not the ROM's, after every download allowed
  kUiInstallFailed = 3,    // the installer could not run
  kUiStopped = 4,          // the download was stopped on request
  kUiUsage = kExitUsage,   // the command line cannot be used
};

struct UiOptions {
  std::string bundlerun;
  std::string log_path;
  std::string report_path;
  std::vector<std::string> arguments;  // this program's command line, for the record
  bool terminal = false;
  bool color = false;
  bool verbose = false;
  bool json = false;
  bool install = true;
  int stop_at = -1;    // send "stop" once the download reaches this percent
  int redownload = 1;  // downloads again after a package that does not match, at most
};

class UpdateSession {
 public:
  UpdateSession(const UiOptions& options, SessionRecord& record);

  // Runs the whole update and records its result; returns a UiExit.
  int Run();

 private:
  // Runs stage one; returns true when a ROM is offered (|failed| tells a failure from no ROM).
  bool StageOne(bool* failed);
  // Records the offered ROM and chooses its address; returns false when none can be used.
  bool ShowRom(RomDescription* rom, PackageAddress* address);
  // Downloads the package, and again from nothing while it does not match the ROM, as often as
  // --redownload allows; returns a UiExit.
  int Download(const RomDescription& rom, const PackageAddress& address);
  // Downloads the package once; returns a UiExit.
  int StageTwo(const RomDescription& rom, const PackageAddress& address);
  // Runs the package's installer; returns a UiExit.
  int Install();
  // Records how the run ended.
  void RecordResult(int status);

  // Reads what |child| wrote since the last call: output lines to the record, status records to
  // the caller. Returns the new status records.
  std::vector<bundlerun_parent::StatusRecord> Drain(bundlerun_parent::Child& child);
  // Reads the last status records when |child| has ended, and says how it ended.
  std::vector<bundlerun_parent::StatusRecord> Finish(bundlerun_parent::Child& child);
  // Handles one line of bundlerun's standard output.
  void OnLogLine(const std::string& line);
  // Forgets what the previous child wrote, before the next one starts.
  void ResetChannels();
  // Records that |child| could not be started.
  void CannotStart();

  const UiOptions& options_;
  SessionRecord& record_;
  std::string scratch_dir_;
  std::string package_path_;
  bundlerun_parent::StatusParser parser_;
  size_t status_seen_ = 0;
  size_t out_seen_ = 0;
  size_t err_seen_ = 0;
  std::string partial_out_;
  std::string partial_err_;
  // Install state, filled from log lines.
  bool cannot_run_ = false;
  bool installer_done_ = false;
  bool installing_ = false;
  bool downloading_ = false;
  int announced_retries_ = 0;  // retries bundlerun announced on its log, not yet on the channel
  // The totals of the downloads before the last, for the run's totals.
  uint64_t earlier_bytes_ = 0;
  int earlier_retries_ = 0;
  int earlier_redirects_ = 0;
  int earlier_pauses_ = 0;
  int redownloads_ = 0;
};

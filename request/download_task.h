/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The driver of one run: it owns what the tasks of a stage share, builds the stage's task chain,
// starts it and deletes the tasks when the nested chain has returned.

#pragma once

#include <stdio.h>

#include "common/url_wrapper.h"
#include "request/stage_record.h"
#include "request/status_channel.h"

class DownloadTask {
 public:
  // |status| is the status channel. Only a run that the front end started with two pipes
  // (|forked|) listens to commands, on |command_fd|.
  DownloadTask(bool forked, FILE* status, int command_fd);
  DownloadTask(const DownloadTask&) = delete;
  DownloadTask& operator=(const DownloadTask&) = delete;

  // Runs server time, update query and ROM info. Returns 0.
  int run_first_stage();
  // Downloads the package from |address|. Returns 0.
  int run_second_stage(URLWrapper address);
  // Runs the prefix of the chain numbered |n|, or the installer for 6. Returns 0.
  int run_from_command(DownloadStatus n);

 private:
  // Creates the tasks numbered |first| to |last| in order, links each task numbered below
  // |linked_to| to the one after it, runs the first and deletes them, the last first, once the
  // chain has returned.
  void RunChain(DownloadStatus first, DownloadStatus last, int linked_to);

  StageRecord stage_;
};

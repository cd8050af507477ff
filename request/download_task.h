/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The driver of one run: it holds the status streams and what the tasks share, builds a stage's
// task chain, starts it and deletes the tasks when the nested chain has returned.

#pragma once

#include <cJSON.h>
#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <string>

#include "common/url_wrapper.h"
#include "request/status_channel.h"

// The two ends of the status channel, as the entry point opened them (null until then). The
// download's progress callback and command listener reach the front end through them.
extern FILE* gStatusWriteStream;
extern FILE* gStatusReadStream;

class DownloadTask {
 public:
  DownloadTask(bool forked, FILE* write_stream, FILE* read_stream);
  DownloadTask(const DownloadTask&) = delete;
  DownloadTask& operator=(const DownloadTask&) = delete;
  ~DownloadTask();

  // Runs server time, update query and ROM info. Returns 0.
  int run_first_stage();
  // Downloads the package from |downloadUrl|. Returns 0.
  int run_second_stage();
  // Runs the prefix of the chain numbered |n|, or the installer for 6. Returns 0.
  int run_from_command(DownloadStatus n);

  // The parsed update answer, stored by the update query task.
  cJSON* answer = nullptr;
  // The text of the download's completion line: the package's MD5 digest.
  std::string result;
  // The package address: given on the command line in the second stage, stored by the ROM info
  // task in the first, replaced by the download task on a redirect. The driver owns it.
  std::unique_ptr<URLWrapper> downloadUrl;
  uint64_t reserved = 0;
  std::string scratch;
  int32_t flags = 0;
  // True when started by the front end with two pipes; only then are commands listened to.
  bool forked = false;
  // 0 when the update answer offers a ROM, 2 when it offers none.
  int32_t romState = 0;
  FILE* writeStream = nullptr;
  FILE* readStream = nullptr;

 private:
  // Runs "/tmp/update-binary" on the package and relays its updater lines into the log.
  void run_updater();
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The ROM download task: the second stage appends the package to "/tmp/secure_update.zip",
// reports progress and speed, obeys the front end's pause, continue and stop, follows redirects
// and retries every failed transfer.

#pragma once

#include <curl/curl.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>

#include "common/unique_file.h"
#include "request/secure_event.h"

// The progress callback's record of one transfer.
struct DownloadProgress {
  int32_t lastPercent = 0;   // the last percentage written to the front end
  int64_t totalSize = 0;     // filetotalsize: the whole package
  int64_t lastNow = 0;       // lastchunk: bytes of this transfer at the latest call
  int64_t lastSample = 0;    // lastsize: absolute bytes at the last speed sample
  int64_t resumeOffset = 0;  // lastresume: what the package file held when the transfer began
  FILE* stream = nullptr;    // the package file (not owned)
  int64_t sampleTime = 0;    // steady clock of the last speed sample, in nanoseconds
};

// Raised to 42 by the command listener on "stop"; the progress callback returns it, so a
// non-zero value aborts the transfer.
extern std::atomic<int32_t> gStopFlag;

// Returns once every command listener has seen the end of the command stream (or "stop"), so
// that the stream can be closed under none of them.
void WaitForCommandListeners();

class RomDownload : public SecureEvent {
 public:
  RomDownload();
  ~RomDownload() override;

  void run() override;
  std::string getDescriptor() override;
  int Executed(DownloadTask* driver) override;
  int PreExecuted() override;
  int OnExecuted() override;
  int PostExecuted() override;
  void InitCbmap() override;
  void releaseResource() override;
  OutcomeCallback handleCurlCode(CURLcode code) override;

  // Serves the front end's commands for the running transfer until the end of the command
  // stream or "stop"; runs on its own thread, started only when the front end can send commands.
  void listen();
  // libcurl's transfer-info callback: progress and speed lines, and the stop flag.
  static int xferinfo(void* record, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                      curl_off_t ulnow);

 private:
  // Follows |redirect| by starting the download again on it.
  void Restart(const std::string& redirect);

  UniqueFile packageFile;
  uint64_t expectedSize = 0;
  std::unique_ptr<DownloadProgress> progress;
};

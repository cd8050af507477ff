/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The ROM download task: the second stage appends the package to "/tmp/secure_update.zip",
// reports progress and speed, obeys the front end's pause, continue and stop, follows redirects
// and retries every failed transfer.

#pragma once

#include <android-base/unique_fd.h>
#include <curl/curl.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <string>

#include "common/package_digest.h"
#include "request/command_listener.h"
#include "request/secure_event.h"

// The progress callback's record of one transfer.
struct DownloadProgress {
  int32_t lastPercent = 0;   // the last percentage written to the front end
  int64_t totalSize = 0;     // filetotalsize: the whole package
  int64_t lastNow = 0;       // lastchunk: bytes of this transfer at the latest call
  int64_t lastSample = 0;    // lastsize: absolute bytes at the last speed sample
  int64_t resumeOffset = 0;  // lastresume: what the package file held when the transfer began
  int64_t sampleTime = 0;    // steady clock of the last speed sample, in nanoseconds
};

// Splits a redirect address into scheme (through "://"), host and path, each cut to what the
// download's fixed buffers hold (16, 1024 and 524288 bytes with their terminating zero).
URLWrapper SplitRedirect(const std::string& address);

class RomDownload : public SecureEvent {
 public:
  RomDownload();
  ~RomDownload() override;

  // Downloads until the package is complete, the front end stops it or the address cannot be
  // resolved. Every retry and every redirect starts a new attempt from this loop.
  void run() override;
  std::string getDescriptor() override;
  int Executed(DownloadTask* driver) override;
  int PreExecuted() override;
  int OnExecuted() override;
  int PostExecuted() override;
  void InitCbmap() override;
  void releaseResource() override;
  OutcomeCallback handleCurlCode(CURLcode code) override;

  // libcurl's transfer-info callback: progress and speed lines, and the stop flag.
  static int xferinfo(void* record, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                      curl_off_t ulnow);
  // libcurl's write callback: appends the body to the package file and hands it to the digest.
  // Returns the bytes written; fewer than given fails the transfer with a write error.
  static size_t WritePackage(char* data, size_t size, size_t count, void* task);

 private:
  struct MultiCleanup {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };

  // One attempt: the address, the package size, name resolution and, from its callback, the
  // transfer and its outcome.
  void Attempt();
  // Runs the transfer on this thread, applying the front end's pause and continue between
  // libcurl's steps. Returns the transfer's CURLcode.
  CURLcode Transfer();
  // Applies a pause or continue that the command listener handed over, and answers it.
  void ApplyCommand();
  // Makes the redirect address the package address and schedules a new attempt on it.
  void FollowRedirect();
  // Releases this attempt's transfer and schedules a new attempt.
  void ScheduleAttempt();

  // The package file, opened for appending; written straight from libcurl's buffer.
  android::base::unique_fd packageFile;
  uint64_t packageSize_ = 0;
  uint64_t expectedSize = 0;
  std::unique_ptr<DownloadProgress> progress;

  // Follows the package file across every attempt of this download.
  PackageDigest digest_;
  // Drives the one easy handle, so that a command from the listener can wake the transfer.
  std::unique_ptr<CURLM, MultiCleanup> multi_;
  // Declared after the multi handle: the listener wakes it, so it ends first.
  CommandListener listener_;
  // Where the finished transfer was redirected to, until the next attempt starts there.
  std::optional<URLWrapper> redirect_;
  bool attemptAgain_ = false;
  // Redirected transfers whose own completion is reported once the download has ended.
  int completionsDue_ = 0;
};

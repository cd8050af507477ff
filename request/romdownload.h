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
#include <stdio.h>

#include <atomic>
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
  FILE* status = nullptr;    // where the progress and speed lines go
  // The front end's stop flag; a transfer without one is never stopped by the callback.
  const std::atomic<int32_t>* stopFlag = nullptr;
};

// Splits a redirect address into scheme (through "://"), host and path, each cut to what the
// download's fixed buffers hold (16, 1024 and 524288 bytes with their terminating zero).
URLWrapper SplitRedirect(const std::string& address);

class RomDownload : public NetworkTask<RomDownload> {
 public:
  RomDownload();
  ~RomDownload() override;

  // Downloads until the package is complete, the front end stops it, or there is no address or
  // its name does not resolve. Every retry and every redirect is one more attempt of this loop,
  // and the outcome of each attempt is decided here.
  void run() override;
  std::string getDescriptor() override;
  int Executed(StageRecord* stage) override;
  int PreExecuted() override;
  int OnExecuted() override;
  void releaseResource() override;

  // libcurl's transfer-info callback: progress and speed lines, and the stop flag.
  static int xferinfo(void* record, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                      curl_off_t ulnow);
  // libcurl's write callback: appends the body to the package file and hands it to the digest,
  // waiting a moment when the digest is too far behind the bytes this process received. Takes
  // nothing while the download is paused, while a command or a stop waits, or while the digest
  // is further behind than a moment: libcurl keeps the piece until the transfer runs again.
  // Returns the bytes written; fewer than given fails the transfer with a write error.
  static size_t WritePackage(char* data, size_t size, size_t count, void* task);

 protected:
  // The host is resolved; the attempt goes on in run().
  void Resolved() override { resolved_ = true; }

 private:
  struct MultiCleanup {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };

  // One attempt: the address, the package size, name resolution and the transfer. Returns the
  // transfer's outcome, or nothing when there is no address or its name did not resolve.
  std::optional<CURLcode> Attempt();
  // Runs the transfer on this thread, applying the front end's commands between libcurl's steps.
  // Returns the transfer's CURLcode; a stop ends it at once as aborted by the callback.
  CURLcode Transfer();
  // Waits until the digest has the whole file, answering commands meanwhile. Returns false when
  // a stop came first.
  bool AwaitDigest();
  // Applies the pause and continue commands that the listener handed over, and answers each.
  void ApplyCommands();
  // Lets a transfer that is held in libcurl take the body again; a failure to write the held
  // piece is kept in resumeFailure_.
  void ResumeTransfer();
  // Returns true once the download is to stop: on the front end's "s", or when its command
  // stream ended while the download is paused (nobody is left to continue it).
  bool StopRequested() const;

  // The outcomes. Each records its diagnostics event first.
  // A transfer received its whole body: the completion line with the package's digest, or
  // "3:f:52" when nothing at all came.
  void Completed();
  // The front end stopped the download: "3:r:s" without a line end.
  void Stopped();
  // Any other failure: "3:f:<code>" and the next attempt appends to what arrived.
  void Retry(CURLcode code);
  // A transfer was redirected: the next attempt starts on the new address.
  void FollowRedirect();

  // The package file, opened for appending; written straight from libcurl's buffer.
  android::base::unique_fd packageFile;
  uint64_t expectedSize = 0;
  std::unique_ptr<DownloadProgress> progress;

  // Drives the one easy handle, so that the listener and the digest can wake this thread.
  std::unique_ptr<CURLM, MultiCleanup> multi_;
  // Both wake the multi handle, so they are declared after it and end before it.
  PackageDigest digest_;
  CommandListener listener_;

  // The download's state, touched only by the thread that runs it. A pause belongs to the
  // download, not to one transfer: retries and redirects keep it.
  bool paused_ = false;
  // A transfer is in the multi handle, and libcurl holds it (paused) at the moment.
  bool transferring_ = false;
  bool recvPaused_ = false;
  // libcurl holds the transfer until the digest has nearly caught up.
  bool heldForDigest_ = false;
  // What libcurl answered when the held transfer could not run again; it ends the transfer.
  CURLcode resumeFailure_ = CURLE_OK;
  bool resolved_ = false;
  // Where the finished transfer was redirected to, until the next attempt starts there.
  std::optional<URLWrapper> redirect_;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "common/package_digest.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "common/cipher.h"

namespace {

// What the hashing thread reads at a time: the file is in memory (a tmpfs), so this only bounds
// the thread's buffer.
constexpr size_t kChunkSize = 256 * 1024;

void Signal(int event_fd) {
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(event_fd, &one, sizeof(one)));
}

// Waits until |event_fd| is signalled and takes the signal; returns false when |stop_fd| is.
bool Await(int event_fd, int stop_fd) {
  pollfd fds[] = {{event_fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
  if (TEMP_FAILURE_RETRY(poll(fds, stop_fd >= 0 ? 2 : 1, -1)) < 0) return false;
  if (stop_fd >= 0 && fds[1].revents != 0) return false;
  uint64_t count;
  TEMP_FAILURE_RETRY(read(event_fd, &count, sizeof(count)));
  return true;
}

}  // namespace

PackageDigest::PackageDigest(std::string path)
    : path_(std::move(path)),
      moreEvent_(eventfd(0, EFD_CLOEXEC)),
      progressEvent_(eventfd(0, EFD_CLOEXEC)),
      stopEvent_(eventfd(0, EFD_CLOEXEC)) {
  MD5_Init(&context_);
}

PackageDigest::~PackageDigest() {
  Signal(stopEvent_.get());
  if (thread_.joinable()) thread_.join();
}

void PackageDigest::Grew(uint64_t size) {
  if (!thread_.joinable()) thread_ = std::thread(&PackageDigest::Run, this);
  if (size < size_.load()) {
    // Something shortened the file: what was hashed is no longer in it.
    WaitUntilBehindBy(0);
    restart_ = true;
  }
  size_ = size;
  Signal(moreEvent_.get());
}

void PackageDigest::WaitUntilBehindBy(uint64_t lag) {
  const uint64_t size = size_;
  while (!failed_ && (restart_ || size - std::min(hashed_.load(), size) > lag)) {
    if (!Await(progressEvent_.get(), -1)) return;
  }
}

std::string PackageDigest::Hex() {
  WaitUntilBehindBy(0);
  if (failed_) return "";
  // The hashing thread is idle until the file grows again, which only this thread makes known.
  MD5_CTX context = context_;
  uint8_t digest[MD5_DIGEST_LENGTH];
  MD5_Final(digest, &context);
  char* raw_hex = nullptr;
  string_to_hex(&raw_hex, reinterpret_cast<const char*>(digest), sizeof(digest));
  CipherBuffer hex(raw_hex);
  return hex.get();
}

void PackageDigest::Run() {
  uint64_t hashed = 0;
  android::base::unique_fd file;
  std::vector<uint8_t> chunk(kChunkSize);
  while (true) {
    if (restart_) {
      MD5_Init(&context_);
      hashed = 0;
      file.reset();
      failed_ = false;
      hashed_ = 0;
      restart_ = false;
    }
    const uint64_t size = size_;
    if (hashed < size && !failed_) {
      if (!file.ok()) file.reset(TEMP_FAILURE_RETRY(open(path_.c_str(), O_RDONLY | O_CLOEXEC)));
      const size_t want = static_cast<size_t>(std::min<uint64_t>(chunk.size(), size - hashed));
      const ssize_t n = file.ok() ? TEMP_FAILURE_RETRY(pread(file.get(), chunk.data(), want,
                                                             static_cast<off_t>(hashed)))
                                  : -1;
      if (n > 0) {
        MD5_Update(&context_, chunk.data(), n);
        hashed += n;
        hashed_ = hashed;
      } else {
        failed_ = true;  // Unreadable, or shorter than it was said to be.
      }
      Signal(progressEvent_.get());
      continue;
    }
    if (!Await(moreEvent_.get(), stopEvent_.get())) return;
  }
}

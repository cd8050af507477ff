/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "common/package_digest.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "common/cipher.h"

namespace {

// The most the hashing thread takes at a time, from memory or from the file: the owner's stop
// and the owner's questions wait at most this long.
constexpr size_t kPieceSize = 256 * 1024;

}  // namespace

PackageDigest::PackageDigest(std::string path, std::function<void()> wake)
    : path_(std::move(path)), wake_(std::move(wake)) {
  MD5_Init(&context_);
}

PackageDigest::~PackageDigest() {
  StopThread();
}

void PackageDigest::Held(uint64_t size) {
  if (size < size_) {
    // Something shortened the file: what was hashed is no longer in it.
    StopThread();
    std::lock_guard<std::mutex> guard(lock_);
    MD5_Init(&context_);
    hashed_ = 0;
    failed_ = false;
    memoryBytes_ = 0;
    size_ = 0;
    ownFrom_ = 0;
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (size > size_) {
    // Bytes this process did not receive: they are read back from the file.
    size_ = size;
    ownFrom_ = size;
  }
  StartLocked();
  more_.notify_one();
}

void PackageDigest::Received(const char* data, size_t length) {
  if (length == 0) return;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (memory_.empty()) memory_.resize(kMemoryBytes);
    if (memoryBytes_ == 0) memoryStart_ = size_;
    // Kept in memory only where it follows what waits there and fits; the hashing thread reads
    // anything else back from the file.
    if (memoryStart_ + memoryBytes_ == size_ && memoryBytes_ + length <= memory_.size()) {
      const size_t tail = (memoryHead_ + memoryBytes_) % memory_.size();
      const size_t first = std::min(length, memory_.size() - tail);
      memcpy(memory_.data() + tail, data, first);
      memcpy(memory_.data(), data + first, length - first);
      memoryBytes_ += length;
    }
    size_ += length;
    StartLocked();
  }
  more_.notify_one();
}

bool PackageDigest::CatchUp(uint64_t most, uint64_t then, std::chrono::milliseconds patience) {
  std::unique_lock<std::mutex> lock(lock_);
  if (OwnBehindLocked() > most) {
    catchUpTo_ = then;
    caughtUp_.wait_for(lock, patience, [&] { return nudged_ || OwnBehindLocked() <= then; });
    catchUpTo_.reset();
  }
  // A nudge ends one wait: the one under way, or the next when none was.
  nudged_ = false;
  return OwnBehindLocked() <= most;
}

void PackageDigest::Nudge() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    nudged_ = true;
  }
  caughtUp_.notify_one();
}

uint64_t PackageDigest::OwnBehindLocked() const {
  // A digest that failed catches up with nothing: nobody is to wait for it.
  if (failed_ || hashed_ < ownFrom_) return 0;
  return size_ - hashed_;
}

bool PackageDigest::WakeWhenBehindBy(uint64_t lag) {
  std::lock_guard<std::mutex> guard(lock_);
  wakeLag_ = lag;
  wakeArmed_ = !WaitOverLocked();
  return wakeArmed_;
}

std::optional<std::string> PackageDigest::Hex() {
  MD5_CTX context;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (failed_) return "";
    if (hashed_ < size_) return std::nullopt;
    context = context_;
  }
  uint8_t digest[MD5_DIGEST_LENGTH];
  MD5_Final(digest, &context);
  char* raw_hex = nullptr;
  string_to_hex(&raw_hex, reinterpret_cast<const char*>(digest), sizeof(digest));
  CipherBuffer hex(raw_hex);
  return std::string(hex.get());
}

void PackageDigest::StartLocked() {
  if (!thread_.joinable()) thread_ = std::thread(&PackageDigest::Run, this);
}

void PackageDigest::StopThread() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  more_.notify_all();
  if (thread_.joinable()) thread_.join();
  std::lock_guard<std::mutex> guard(lock_);
  stop_ = false;
}

bool PackageDigest::WaitOverLocked() const {
  return failed_ || size_ - hashed_ <= wakeLag_;
}

void PackageDigest::Run() {
  android::base::unique_fd file;
  std::vector<uint8_t> buffer;
  std::unique_lock<std::mutex> lock(lock_);
  while (true) {
    more_.wait(lock, [this] { return stop_ || (!failed_ && hashed_ < size_); });
    if (stop_) return;

    // Received bytes that the file gave already are dropped from memory.
    if (memoryBytes_ > 0 && memoryStart_ < hashed_) {
      const size_t stale =
          static_cast<size_t>(std::min<uint64_t>(hashed_ - memoryStart_, memoryBytes_));
      memoryHead_ = (memoryHead_ + stale) % memory_.size();
      memoryBytes_ -= stale;
      memoryStart_ += stale;
    }
    const uint64_t at = hashed_;
    const bool from_memory = memoryBytes_ > 0 && memoryStart_ == at;
    size_t length;
    const uint8_t* piece;
    if (from_memory) {
      length = std::min({memoryBytes_, memory_.size() - memoryHead_, kPieceSize});
      piece = reinterpret_cast<const uint8_t*>(memory_.data() + memoryHead_);
    } else {
      const uint64_t end = memoryBytes_ > 0 ? memoryStart_ : size_;
      length = static_cast<size_t>(std::min<uint64_t>(kPieceSize, end - at));
      piece = nullptr;
    }
    lock.unlock();

    bool read = true;
    if (!from_memory) {
      buffer.resize(kPieceSize);
      if (!file.ok()) file.reset(TEMP_FAILURE_RETRY(open(path_.c_str(), O_RDONLY | O_CLOEXEC)));
      const ssize_t n =
          file.ok()
              ? TEMP_FAILURE_RETRY(pread(file.get(), buffer.data(), length, static_cast<off_t>(at)))
              : -1;
      // Unreadable, or shorter than it was said to be.
      read = n > 0;
      if (read) length = static_cast<size_t>(n);
      piece = buffer.data();
    }
    if (read) MD5_Update(&context_, piece, length);

    lock.lock();
    if (!read) {
      failed_ = true;
    } else {
      hashed_ = at + length;
      if (from_memory) {
        memoryHead_ = (memoryHead_ + length) % memory_.size();
        memoryBytes_ -= length;
        memoryStart_ += length;
      }
    }
    if (catchUpTo_ && OwnBehindLocked() <= *catchUpTo_) caughtUp_.notify_one();
    if (wakeArmed_ && WaitOverLocked()) {
      wakeArmed_ = false;
      lock.unlock();
      if (wake_) wake_();
      lock.lock();
    }
  }
}

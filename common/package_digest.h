/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The MD5 digest of the package file, computed while the package arrives, so that it is ready
// when the last byte lands. A hashing thread hashes the file in order: what the file held before
// this process received anything (an earlier attempt's bytes) it reads back from the file; the
// pieces the download receives are handed over from memory, each copied once, while there is
// room for them, and read back from the file otherwise. The download waits for it only for a
// moment and only for bytes that it received itself, never for what the file held before.

#pragma once

#include <android-base/unique_fd.h>
#include <openssl/md5.h>
#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class PackageDigest {
 public:
  // How many received bytes wait in memory for the hashing thread at most.
  static constexpr size_t kMemoryBytes = 2 * 1024 * 1024 + 256 * 1024;

  // |wake| is called on the hashing thread when a wait asked for with WakeWhenBehindBy is over.
  PackageDigest(std::string path, std::function<void()> wake);
  // Stops the hashing thread within one piece of work and joins it.
  ~PackageDigest();
  PackageDigest(const PackageDigest&) = delete;
  PackageDigest& operator=(const PackageDigest&) = delete;

  // Tells the digest that the file holds |size| bytes when an attempt starts. Bytes the digest
  // does not know of are read back from the file; a file shorter than what the digest knows is
  // hashed again from its start.
  void Held(uint64_t size);
  // Hands over |length| bytes that this process received and has just appended to the file.
  void Received(const char* data, size_t length);
  // When more than |most| of the bytes this process received are not hashed yet, waits until at
  // most |then| are (or hashing failed), but no longer than |patience| and not past a Nudge().
  // Returns false when the digest is still more than |most| behind: the caller holds its
  // transfer instead of waiting longer. Bytes the file held before those this process received
  // are never waited for: while the hashing thread works on those, this returns true at once.
  bool CatchUp(uint64_t most, uint64_t then, std::chrono::milliseconds patience);
  // Ends the wait in CatchUp under way, or the next one, so that its caller can answer the front
  // end at once.
  void Nudge();
  // Asks for one call of |wake| once at most |lag| bytes of the file are not hashed, or hashing
  // failed. Returns false, asking nothing, when that already holds.
  bool WakeWhenBehindBy(uint64_t lag);
  // Returns the lower-case hexadecimal MD5 of the file once all of it is hashed, an empty string
  // when the file could not be read, or nothing while hashing goes on.
  std::optional<std::string> Hex();

 private:
  // The hashing thread: hashes the file in order until stopped.
  void Run();
  // Starts the hashing thread unless it runs. Called with lock_ held.
  void StartLocked();
  // Stops the hashing thread and joins it.
  void StopThread();
  // Returns whether the wait asked for with WakeWhenBehindBy is over. Called with lock_ held.
  bool WaitOverLocked() const;
  // Returns how many of the bytes this process received are not hashed yet (0 while the hashing
  // thread is still on bytes the file held before them, and once hashing failed). Called with
  // lock_ held.
  uint64_t OwnBehindLocked() const;

  const std::string path_;
  const std::function<void()> wake_;
  std::thread thread_;

  // Everything below is guarded by lock_, except where said.
  std::mutex lock_;
  std::condition_variable more_;
  std::condition_variable caughtUp_;
  std::optional<uint64_t> catchUpTo_;  // the owner waits in CatchUp until this
  bool nudged_ = false;                // a Nudge() ends the owner's next or current wait
  bool stop_ = false;
  bool failed_ = false;
  // The file's size as this process knows it, the bytes hashed, and where the bytes this process
  // received begin.
  uint64_t size_ = 0;
  uint64_t hashed_ = 0;
  uint64_t ownFrom_ = 0;
  bool wakeArmed_ = false;
  uint64_t wakeLag_ = 0;
  // Received bytes waiting in memory: |memoryBytes_| bytes of the file from |memoryStart_| on,
  // from |memoryHead_| on in |memory_| (wrapping around at its end). The hashing thread reads the
  // bytes it claimed without the lock; Received() writes only where no claimed byte is.
  std::vector<char> memory_;
  uint64_t memoryStart_ = 0;
  size_t memoryHead_ = 0;
  size_t memoryBytes_ = 0;
  // Touched by the hashing thread while it hashes what it claimed, and by Hex() only when
  // nothing is claimed (hashed_ == size_).
  MD5_CTX context_;
};

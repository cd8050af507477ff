/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The MD5 digest of the package file, computed while the package arrives. A hashing thread
// follows the download through the file, so that the digest is ready when the last byte lands
// and the thread that receives the package never spends time on it.

#pragma once

#include <android-base/unique_fd.h>
#include <openssl/md5.h>
#include <stdint.h>

#include <atomic>
#include <string>
#include <thread>

class PackageDigest {
 public:
  explicit PackageDigest(std::string path);
  ~PackageDigest();
  PackageDigest(const PackageDigest&) = delete;
  PackageDigest& operator=(const PackageDigest&) = delete;

  // Tells the digest that the file now holds |size| bytes. The bytes not hashed yet are hashed
  // once, in order; a file shorter than what was hashed is hashed again from its start.
  void Grew(uint64_t size);
  // Waits until at most |lag| bytes of the file are not hashed yet.
  void WaitUntilBehindBy(uint64_t lag);
  // Waits until the whole file is hashed and returns its lower-case hexadecimal MD5, or an empty
  // string when the file could not be read.
  std::string Hex();

 private:
  // The hashing thread: hashes what the file holds beyond what it has hashed, until stopped.
  void Run();

  const std::string path_;
  android::base::unique_fd moreEvent_;      // the file grew (or is to be hashed again)
  android::base::unique_fd progressEvent_;  // the hashing thread hashed more
  android::base::unique_fd stopEvent_;
  std::thread thread_;
  // Written by the owner: the file's size. Written by the hashing thread: the bytes hashed, each
  // store made after the context holds them.
  std::atomic<uint64_t> size_{0};
  std::atomic<uint64_t> hashed_{0};
  std::atomic<bool> restart_{false};
  std::atomic<bool> failed_{false};
  // Touched by the hashing thread, and by the owner only while hashed_ equals size_.
  MD5_CTX context_;
};

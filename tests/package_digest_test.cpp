/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The package digest follows the file as the download grows it, from what the file held and
// from what the download hands over, and always ends at the MD5 of what the file holds.

#include "common/package_digest.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "harness/harness.h"

namespace {

constexpr char kFile[] = "/tmp/harness/package";

// Counts the digest's wake calls, so that a test can wait for one.
class Waker {
 public:
  std::function<void()> callback() {
    return [this] {
      std::lock_guard<std::mutex> guard(lock_);
      ++calls_;
      woken_.notify_all();
    };
  }
  // Waits for the digest to have the whole file and returns its hex.
  std::string Whole(PackageDigest& digest) {
    while (true) {
      std::unique_lock<std::mutex> lock(lock_);
      const int seen = calls_;
      lock.unlock();
      if (!digest.WakeWhenBehindBy(0)) return *digest.Hex();
      lock.lock();
      woken_.wait(lock, [&] { return calls_ != seen; });
    }
  }

 private:
  std::mutex lock_;
  std::condition_variable woken_;
  int calls_ = 0;
};

TEST(PackageDigestTest, EndsAtTheMd5OfTheFileOnDisk) {
  harness::RequireSandbox();
  mkdir(harness::kHarnessDir, 0755);
  // Each step cuts the file to |keep| bytes (or leaves it), appends |held| as an earlier process
  // would and tells the digest at the start of an attempt, then appends |received| in pieces as
  // the download does.
  struct Step {
    ssize_t keep;
    std::string held;
    std::string received;
  };
  const std::string big(3 * 1024 * 1024 + 5, 'x');
  const std::string bigger(PackageDigest::kMemoryBytes + 2 * 1024 * 1024 + 7, 'y');
  const struct Case {
    const char* name;
    std::vector<Step> steps;
    const char* digested = kFile;  // what the digest reads; another name has no digest
  } cases[] = {
      {"empty", {{0, "", ""}}},
      {"held bytes, then received ones", {{0, "held", big}, {-1, "", "tail"}}},
      {"more received than memory keeps", {{0, big, bigger}, {-1, "", big}}},
      {"shortened, then grown again", {{0, "", big}, {1000, "", "after"}}},
      {"unreadable", {{0, "held bytes", ""}}, "/tmp/harness/no-such-package"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    harness::WriteFile(kFile, "");
    Waker waker;
    PackageDigest digest(c.digested, waker.callback());
    for (const Step& step : c.steps) {
      if (step.keep >= 0) {
        ASSERT_EQ(0, truncate(kFile, step.keep));
      }
      android::base::unique_fd file(open(kFile, O_WRONLY | O_APPEND | O_CLOEXEC));
      ASSERT_TRUE(android::base::WriteStringToFd(step.held, file));
      digest.Held(lseek(file.get(), 0, SEEK_END));
      for (size_t at = 0; at < step.received.size(); at += 16384) {
        const std::string piece = step.received.substr(at, 16384);
        ASSERT_TRUE(android::base::WriteStringToFd(piece, file));
        digest.Received(piece.data(), piece.size());
      }
      EXPECT_EQ(std::string(c.digested) == kFile ? harness::Md5Sum(kFile) : "",
                waker.Whole(digest));
    }
  }
}

}  // namespace

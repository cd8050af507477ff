/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "yondatools/yonda-root/secure_mount.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "harness/harness.h"

namespace {

using harness::LogCapture;
using harness::ReadFile;
using harness::WriteFile;

class SecureMountTest : public harness::SandboxTest {};

TEST_F(SecureMountTest, WriteGuardFollowsBuildEnvironmentAndAllowTable) {
  constexpr char kDebugLine[] = "I:bundlerun running in android system only during debug\n";
  constexpr char kTmpfsLine[] = "I:file in tmpfs, allow dump\n";
  struct Case {
    const char* tags;  // nullptr: unset
    const char* boot_image;
    const char* path;
    bool allowed;
    const char* log;
  } cases[] = {
      // A test build writes anywhere and says nothing.
      {"test-keys", "yonda", "/system/x", true, ""},
      // Inside the system (or with the boot image unset) every write is a debug run.
      {"release-keys", nullptr, "/system/x", true, kDebugLine},
      {"release-keys", "android", "/cache/yonda/download/LatestRom/Validate", true, kDebugLine},
      {nullptr, nullptr, "/x", true, kDebugLine},
      {"test-keys ", "yonda", "/x", false, ""},
      // The boot environment of a release build: scratch prefixes, no trailing slash required.
      {"release-keys", "yonda", "/tmpfoo", true, kTmpfsLine},
      {"release-keys", "yonda", "/cache/tmp/download/status", true, kTmpfsLine},
      {"release-keys", "yonda", "tmp/x", false, ""},
      {"release-keys", "yonda", "/var/tmp/x", false, ""},
      // The allow table, by exact path only: two of its entries and near misses.
      {"release-keys", "yonda", "/cache/yonda/download/LatestRom/2", true, ""},
      {"release-keys", "yonda", "/cache/yonda/download/LatestRom/md5", true, ""},
      {"release-keys", "yonda", "/cache/yonda/download/CrossRom/version", true, ""},
      {"release-keys", "yonda", "/cache/yonda/download/LatestRom/Validate", false, ""},
      {"release-keys", "yonda", "/cache/yonda/download/CurrentRom", false, ""},
      {"release-keys", "yonda", "/cache/yonda/download/LatestRom//md5", false, ""},
      {"release-keys", "yonda", "/cache/yonda/download/LatestRom/md5/", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " tags=" + (c.tags ? c.tags : "(unset)") +
                 " image=" + (c.boot_image ? c.boot_image : "(unset)"));
    c.tags ? props_.Set("ro.build.tags", c.tags) : props_.Remove("ro.build.tags");
    c.boot_image ? props_.Set("ro.bootimage.name", c.boot_image)
                 : props_.Remove("ro.bootimage.name");
    LogCapture log;
    EXPECT_EQ(c.allowed, allowcreate(c.path));
    EXPECT_EQ(c.log, log.text());
  }
}

TEST_F(SecureMountTest, RefusedWriteReportsSuccessAndLeavesTheFileAlone) {
  mkdir("/cache/yonda", 0755);
  mkdir("/cache/yonda/download", 0755);
  const std::string path = "/cache/yonda/download/request.yonda.encrypted";
  WriteFile(path, "old");
  LogCapture log;
  EXPECT_EQ(0, create_file_and_writedata(path, "new"));
  EXPECT_EQ("old", ReadFile(path));
  EXPECT_EQ("E:copy " + path + " only in test-keys\n", log.text());
}

TEST_F(SecureMountTest, WriterTruncatesJoinsWithOneSlashAndUsesMode0644) {
  umask(022);
  mkdir("/tmp/download", 0755);
  WriteFile("/tmp/download/status", "longer old text");
  EXPECT_EQ(0, create_file_and_writedata("/tmp/download/", "status", "d"));
  EXPECT_EQ("d", ReadFile("/tmp/download//status"));
  EXPECT_EQ(0, create_file_and_writedata("/tmp/download", "status", ""));
  EXPECT_EQ("", open_file_and_readdata("/tmp/download/status"));
  EXPECT_TRUE(harness::Exists("/tmp/download/status"));
  EXPECT_EQ(0, create_file_and_writedata("/tmp/new", "payload"));
  struct stat st;
  ASSERT_EQ(0, stat("/tmp/new", &st));
  EXPECT_EQ(0644u, st.st_mode & 07777);
  EXPECT_EQ("payload", open_file_and_readdata("/tmp/new"));
}

}  // namespace

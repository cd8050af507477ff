/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The package digest follows the file as the download grows it and always ends at the MD5 of
// what the file holds.

#include "common/package_digest.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness/harness.h"

namespace {

constexpr char kFile[] = "/tmp/harness/package";

void Append(const std::string& bytes) {
  harness::WriteFile(kFile, harness::ReadFile(kFile) + bytes);
}

TEST(PackageDigestTest, EndsAtTheMd5OfTheFileOnDisk) {
  harness::RequireSandbox();
  mkdir(harness::kHarnessDir, 0755);
  // Each step: the file is cut to |keep| bytes (or left), |append| is added, the digest is told.
  struct Step {
    ssize_t keep;
    std::string append;
  };
  const std::string big(3 * 1024 * 1024 + 5, 'x');
  const struct Case {
    const char* name;
    std::vector<Step> steps;
  } cases[] = {
      {"empty", {{0, ""}}},
      {"held bytes, then appended in pieces", {{0, "held"}, {-1, big}, {-1, "tail"}}},
      {"shortened, then grown again", {{0, big}, {1000, ""}, {-1, "after"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    harness::WriteFile(kFile, "");
    PackageDigest digest(kFile);
    for (const Step& step : c.steps) {
      if (step.keep >= 0) {
        ASSERT_EQ(0, truncate(kFile, step.keep));
      }
      Append(step.append);
      digest.Grew(harness::ReadFile(kFile).size());
      EXPECT_EQ(harness::Md5Sum(kFile), digest.Hex());
    }
  }
}

TEST(PackageDigestTest, UnreadableFileHasNoDigest) {
  harness::RequireSandbox();
  PackageDigest digest("/tmp/harness/no-such-package");
  digest.Grew(10);
  EXPECT_EQ("", digest.Hex());
}

}  // namespace

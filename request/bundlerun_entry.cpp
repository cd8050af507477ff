/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "request/bundlerun_entry.h"

#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>

#include "common/paths.h"
#include "yondatools/yonda-root/secure_mount.h"

namespace {

// Indexed by severity; fatal (6) reads the terminating zero, which the front end receives as is.
constexpr char kSeverityLetters[] = "VDIWEF";
constexpr char kCacheTmpDir[] = "/cache/tmp";

// Returns true when |path| is the root of a mount (it lies on another device than its parent).
bool IsMountPoint(const std::string& path) {
  struct stat self, parent;
  if (stat(path.c_str(), &self) != 0 || stat((path + "/..").c_str(), &parent) != 0) return false;
  return self.st_dev != parent.st_dev;
}

}  // namespace

void UiLogger(android::base::LogId, android::base::LogSeverity severity, const char*, const char*,
              unsigned int, const char* message) {
  printf("%c:%s\n", kSeverityLetters[severity], message);
  // The front end shows log lines as they come, also when standard output is a pipe.
  fflush(stdout);
}

void prepare_and_correct_dir() {
  mkdir(kCacheRootDir.c_str(), 0755);
  if (whichEnvironment() != "yonda") {
    // Outside the update boot image the scratch tree lives on a tmpfs under /cache. A tmpfs that
    // is already there (an earlier stage of a debug run) is kept with what it holds.
    mkdir(kCacheTmpDir, 0755);
    if (!IsMountPoint(kCacheTmpDir)) mount("none", kCacheTmpDir, "tmpfs", 0, nullptr);
    MoveScratchTreeUnder("/cache");
  }
  for (const std::string* dir :
       {&kTmpDownloadDir, &kTmpLatestRomDir, &kTmpCrossRomDir, &kDgqTmpDir, &kDgqEventsDir}) {
    mkdir(dir->c_str(), 0755);
  }
}

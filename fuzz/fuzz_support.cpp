/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "fuzz/fuzz_support.h"

#include <android-base/logging.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "common/paths.h"

namespace fuzz {
namespace {

// The log sink of the targets: records are built, then dropped.
void DiscardRecord(android::base::LogId, android::base::LogSeverity, const char*, const char*,
                   unsigned int, const char*) {}

// Creates |path| and its missing parents with mode 0755.
void MakeDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
  mkdir(path.c_str(), 0755);
}

// The scratch directory, removed when the process ends normally.
std::string* gScratch = nullptr;

void RemoveScratch() {
  RemoveTree(*gScratch);
}

}  // namespace

void QuietOutput() {
  android::base::SetLogger(DiscardRecord);
  android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  fflush(stdout);
  int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd == -1 || dup2(null_fd, STDOUT_FILENO) == -1) {
    fprintf(stderr, "fuzz: cannot send standard output to /dev/null: %s\n", strerror(errno));
    abort();
  }
  close(null_fd);
}

std::string MakeScratchDirectory(const char* name) {
  const char* tmp = getenv("TMPDIR");
  std::string path = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                     "/bundlerun-fuzz-" + name + ".XXXXXX";
  if (mkdtemp(path.data()) == nullptr) {
    fprintf(stderr, "fuzz: cannot make %s: %s\n", path.c_str(), strerror(errno));
    abort();
  }
  gScratch = new std::string(path);
  atexit(RemoveScratch);
  return path;
}

void MoveFixedPathsUnder(const std::string& root) {
  for (std::string* path : {&kCacheRootDir,
                            &kLastLocalePath,
                            &kLastLogPath,
                            &kLastKmsgPath,
                            &kResponseBodyPath,
                            &kOtaHeaderPath,
                            &kTimePath,
                            &kCommandPath,
                            &kLocalePath,
                            &kLastDiagNamePath,
                            &kEnableAndroidRequestPath,
                            &kEnableAndroidResponsePath,
                            &kNormalLastDiagPath,
                            &kErrorLastDiagPath,
                            &kDiagPidPath,
                            &kDgqasdCacheDir,
                            &kLastTmpDir,
                            &kUncryptStatusPath,
                            &kDownloadDir,
                            &kYondaRequestPlainPath,
                            &kYondaRequestCipherPath,
                            &kAndroidRequestPlainPath,
                            &kAndroidRequestCipherPath,
                            &kYondaResponsePlainPath,
                            &kYondaResponseCipherPath,
                            &kAndroidResponsePlainPath,
                            &kAndroidResponseCipherPath,
                            &kDgqCacheDir}) {
    path->insert(0, root);
  }
  MoveScratchTreeUnder(root);
}

void MakeWorkDirectories() {
  for (const std::string* dir : {&kCacheRootDir, &kTmpDownloadDir, &kTmpLatestRomDir,
                                 &kTmpCrossRomDir, &kDgqTmpDir, &kDgqEventsDir}) {
    MakeDirectories(*dir);
  }
}

void RemoveTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    unlink(path.c_str());
    return;
  }
  // Mirror directories are made with mode 0644; they need their search bit to be emptied.
  chmod(path.c_str(), 0700);
  if (DIR* dir = opendir(path.c_str())) {
    while (dirent* entry = readdir(dir)) {
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      RemoveTree(path + "/" + entry->d_name);
    }
    closedir(dir);
  }
  rmdir(path.c_str());
}

}  // namespace fuzz

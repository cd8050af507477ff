/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "yondatools/yonda-root/jsondump.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "common/paths.h"
#include "yondatools/yonda-root/secure_mount.h"

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

// Copies every entry of the scratch directory |from| into |to| as a regular file. Entries that
// cannot be read (the numbered mirror directories) are copied empty.
void DumpRomDirectory(const std::string& from, const std::string& to) {
  UniqueDir dir(opendir(from.c_str()));
  LOG(DEBUG) << ">> Dump LatestRom under \"" << from << "\" to \"" << to << "\"";
  if (!dir) return;  // Nothing was laid out for this ROM kind.
  while (dirent* entry = readdir(dir.get())) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    std::string content;
    android::base::ReadFileToString(from + "/" + name, &content, /*follow_symlinks=*/false);
    create_file_and_writedata(to, name, content);
  }
}

}  // namespace

void jsondump() {
  const std::string root = kDownloadDir;
  const std::string latest_dir = root + "/" + kLatestRomName;
  const std::string cross_dir = root + "/" + kCrossRomName;
  const std::string current_marker = root + "/" + kCurrentRomName;

  // A stale file or link where the root directory belongs is removed; a real directory stays.
  if (access(root.c_str(), F_OK) == 0) unlink(root.c_str());
  mkdir(root.c_str(), 0755);
  mkdir(latest_dir.c_str(), 0755);
  mkdir(cross_dir.c_str(), 0755);

  DumpRomDirectory(kTmpLatestRomDir, latest_dir);
  DumpRomDirectory(kTmpCrossRomDir, cross_dir);

  std::string current;
  android::base::Realpath(kTmpCurrentRomDir, &current);
  if (current == kTmpLatestRomDir) {
    create_file_and_writedata(current_marker, kLatestRomName);
  } else if (current == kTmpCrossRomDir) {
    create_file_and_writedata(current_marker, kCrossRomName);
  }

  const std::string environment = whichEnvironment();
  for (const char* kind : {"request", "response"}) {
    for (const char* state : {"uncrypted", "encrypted"}) {
      std::string content;
      android::base::ReadFileToString(kTmpDownloadDir + "/" + kind + "." + state, &content);
      create_file_and_writedata(root + "/" + kind + "." + environment + "." + state, content);
    }
  }
}

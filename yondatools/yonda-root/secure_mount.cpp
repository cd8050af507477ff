/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "yondatools/yonda-root/secure_mount.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <string>
#include <unordered_map>

#include "common/paths.h"

namespace {

// Builds the fixed table of files that a release build in the boot environment may write
// outside the scratch trees. The "no" rows are kept as the explicit list of files that must
// never be written through the gate.
std::unordered_map<std::string, bool> BuildAllowTable() {
  std::unordered_map<std::string, bool> table;
  struct Leaf {
    const char* name;
    bool allowed;
  };
  static constexpr Leaf kRomLeaves[] = {
      {"0", true},   {"1", true},         {"2", true},       {"filename", true},
      {"md5", true}, {"Validate", false}, {"version", true},
  };
  for (const std::string& kind : {kLatestRomName, kCrossRomName}) {
    for (const Leaf& leaf : kRomLeaves) {
      table[kDownloadDir + "/" + kind + "/" + leaf.name] = leaf.allowed;
    }
  }
  for (const std::string* path :
       {&kYondaRequestPlainPath, &kYondaRequestCipherPath, &kAndroidRequestPlainPath,
        &kAndroidRequestCipherPath, &kYondaResponsePlainPath, &kYondaResponseCipherPath,
        &kAndroidResponsePlainPath, &kAndroidResponseCipherPath}) {
    table[*path] = false;
  }
  return table;
}

}  // namespace

bool allowcreate(std::string path) {
  if (android::base::GetProperty("ro.build.tags", "null") == "test-keys") return true;
  if (whichEnvironment() == "android") {
    LOG(INFO) << "bundlerun running in android system only during debug";
    return true;
  }
  // Both prefixes name the scratch tmpfs; no trailing slash is required on purpose.
  if (path.find("/tmp") == 0 || path.find("/cache/tmp") == 0) {
    LOG(INFO) << "file in tmpfs, allow dump";
    return true;
  }
  static const std::unordered_map<std::string, bool> allow_table = BuildAllowTable();
  auto it = allow_table.find(path);
  return it != allow_table.end() && it->second;
}

int32_t create_file_and_writedata(const std::string& path, const std::string& data) {
  if (!allowcreate(path)) {
    LOG(ERROR) << "copy " << path << " only in test-keys";
    return 0;
  }
  android::base::unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (fd == -1) {
    int error = errno;
    LOG(ERROR) << "failed to open file " << path << "(" << error << ")" << strerror(error);
    return -error;
  }
  if (!android::base::WriteStringToFd(data, fd)) {
    int error = errno;
    LOG(ERROR) << "failed to write data " << error << strerror(error);
    return -error;
  }
  return 0;
}

int32_t create_file_and_writedata(const std::string& directory, const std::string& name,
                                  const std::string& data) {
  return create_file_and_writedata(directory + "/" + name, data);
}

std::string open_file_and_readdata(const std::string& path) {
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY));
  if (fd == -1) {
    int error = errno;
    LOG(ERROR) << "failed to open file" << path << "(" << error << ")" << strerror(error);
    return "";
  }
  std::string content;
  if (!android::base::ReadFdToString(fd, &content)) {
    int error = errno;
    LOG(ERROR) << "failed to read data " << error << strerror(error);
    return "";
  }
  return content;
}

std::string whichEnvironment() {
  return android::base::GetProperty("ro.bootimage.name", "android");
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "yondatools/yonda-dgq/dgqprotocal.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "common/paths.h"
#include "yondatools/yonda-root/secure_mount.h"

namespace yondadgq {

int32_t dgq_write_data(const std::map<std::string, std::string>& event) {
  for (const auto& [field, value] : event) {
    create_file_and_writedata(kDgqEventsDir, field, value);
  }

  if (access(kDiagPidPath.c_str(), F_OK) == 0) {
    LOG(INFO) << "file " << kDiagPidPath << "is existed";
  }
  std::string pid;
  if (android::base::ReadFileToString(kDiagPidPath, &pid)) {
    // A pid file that is not a number means a broken daemon: the conversion error ends the run.
    static_cast<void>(std::stoi(pid));
    LOG(INFO) << "DgqUpload disabled the signalling to \"--diag\"";
  } else {
    int error = errno;
    LOG(ERROR) << "failed to get " << kDiagPidPath << ":" << error << "(" << strerror(error) << ")";
  }
  return 0;
}

}  // namespace yondadgq

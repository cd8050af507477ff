/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun: the online update client of the update boot environment. The front end starts it
// once per stage with the two ends of its status channel:
//
//   bundlerun --run_from_fork --first_stage <write fd> <read fd>
//   bundlerun --run_from_fork --second_stage <write fd> <read fd> <scheme> <host> <path>
//   bundlerun --run_from_command <digit>
//
// Results reach the front end only through the status channel and the log lines on standard
// output; the exit status is always 0.

#define LOG_TAG "bundlerun"

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "common/url_wrapper.h"
#include "request/bundlerun_entry.h"
#include "request/download_task.h"

namespace {

constexpr char kBanner[] = "==================================================";

// Returns |fd| when it is an open descriptor, else -1: a front end may pass a number that is
// not open, and the download then has nobody to listen to.
int OpenDescriptor(int fd) {
  return fcntl(fd, F_GETFD) == -1 ? -1 : fd;
}

// Closes the status channel: the write end first, then the command stream, which the download's
// command listener stopped reading when the download ended.
void CloseStatusChannel(FILE* status, int commands) {
  if (status != nullptr) fclose(status);
  if (commands >= 0) close(commands);
}

}  // namespace

int main(int argc, char** argv) {
  android::base::SetMinimumLogSeverity(android::base::DEBUG);
  if (android::base::GetProperty("debug.logcat", "0") != "1") {
    android::base::InitLogging(argv, UiLogger, android::base::DefaultAborter);
  }
  LOG(DEBUG) << "LogSeverity=" << android::base::GetMinimumLogSeverity();

  prepare_and_correct_dir();

  if (argc < 2) return 0;
  const bool from_fork = strcmp(argv[1], "--run_from_fork") == 0;
  // The status channel: the front end's status pipe as a stream, and its command pipe, which the
  // download reads directly.
  FILE* status = nullptr;
  int commands = -1;
  if (from_fork) {
    if (argc < 5) {
      perror("argc");
      return 0;
    }
    commands = OpenDescriptor(atoi(argv[4]));
    status = fdopen(atoi(argv[3]), "wb");
  } else if (strcmp(argv[1], "--run_from_command") != 0) {
    printf("wrong command format %s\n", argv[1]);
    return 0;
  }

  if (!from_fork) {
    if (argc != 3) {
      perror("argc");
      return 0;
    }
    LOG(INFO) << kBanner << " Start bundlerun run-command [" << getpid() << "]...";
    DownloadTask task(/*forked=*/false, stdout, -1);
    task.run_from_command(static_cast<DownloadStatus>(argv[2][0] - '0'));
    fclose(stdout);
    return 0;
  }

  if (strcmp(argv[2], "--first_stage") == 0) {
    LOG(INFO) << kBanner << " Start bundlerun 1st-stage [" << getpid() << "]...";
    DownloadTask task(/*forked=*/true, status, commands);
    task.run_first_stage();
    CloseStatusChannel(status, commands);
    return 0;
  }

  if (strcmp(argv[2], "--second_stage") == 0) {
    if (argc < 8) {
      perror("argc");
      return 0;
    }
    LOG(INFO) << kBanner << " Start bundlerun 2nd-stage [" << getpid() << "]...";
    DownloadTask task(/*forked=*/true, status, commands);
    task.run_second_stage(URLWrapper(argv[5], argv[6], "", argv[7]));
    CloseStatusChannel(status, commands);
    return 0;
  }

  // Any other stage: both ends stay open until the process ends.
  return 0;
}

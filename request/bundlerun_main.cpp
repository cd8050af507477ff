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
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "common/url_wrapper.h"
#include "request/bundlerun_entry.h"
#include "request/download_task.h"

namespace {

constexpr char kBanner[] = "==================================================";

// Closes the status channel: the write end first, then the command stream. The download's
// command listener has ended with its task; a descriptor that could not be opened has no stream.
void CloseStatusStreams(FILE* write_stream, FILE* read_stream) {
  if (write_stream != nullptr) fclose(write_stream);
  if (read_stream != nullptr) fclose(read_stream);
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
  FILE* write_stream = nullptr;
  FILE* read_stream = nullptr;
  if (from_fork) {
    if (argc < 5) {
      perror("argc");
      return 0;
    }
    read_stream = fdopen(atoi(argv[4]), "r");
    write_stream = fdopen(atoi(argv[3]), "wb");
    gStatusReadStream = read_stream;
    gStatusWriteStream = write_stream;
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
    gStatusWriteStream = stdout;
    DownloadTask task(/*forked=*/false, stdout, nullptr);
    task.run_from_command(static_cast<DownloadStatus>(argv[2][0] - '0'));
    fclose(task.writeStream);
    return 0;
  }

  if (strcmp(argv[2], "--first_stage") == 0) {
    LOG(INFO) << kBanner << " Start bundlerun 1st-stage [" << getpid() << "]...";
    DownloadTask task(/*forked=*/true, write_stream, read_stream);
    task.run_first_stage();
    CloseStatusStreams(write_stream, read_stream);
    return 0;
  }

  if (strcmp(argv[2], "--second_stage") == 0) {
    if (argc < 8) {
      perror("argc");
      return 0;
    }
    LOG(INFO) << kBanner << " Start bundlerun 2nd-stage [" << getpid() << "]...";
    DownloadTask task(/*forked=*/true, write_stream, read_stream);
    task.downloadUrl = std::make_unique<URLWrapper>(argv[5], argv[6], "", argv[7]);
    task.run_second_stage();
    CloseStatusStreams(write_stream, read_stream);
    return 0;
  }

  return 0;
}

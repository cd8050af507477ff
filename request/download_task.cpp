/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "DownloadTask"

#include "request/download_task.h"

#include <android-base/logging.h>
#include <signal.h>

DownloadTask::DownloadTask(bool forked, FILE* write_stream, FILE* read_stream)
    : forked(forked), writeStream(write_stream), readStream(read_stream) {}

DownloadTask::~DownloadTask() {
  cJSON_Delete(answer);
}

int DownloadTask::run_first_stage() {
  // A front end that went away must make writes fail, not end the process.
  signal(SIGPIPE, SIG_IGN);
  return 0;
}

int DownloadTask::run_second_stage() {
  signal(SIGPIPE, SIG_IGN);
  return 0;
}

int DownloadTask::run_from_command(DownloadStatus) {
  signal(SIGPIPE, SIG_IGN);
  return 0;
}

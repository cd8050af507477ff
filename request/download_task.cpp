/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "DownloadTask"

#include "request/download_task.h"

#include <signal.h>

#include <memory>
#include <vector>

#include "request/addressinfo.h"
#include "request/installer.h"
#include "request/romdownload.h"
#include "request/rominfo.h"
#include "request/syncservertime.h"

namespace {

// Returns a new task of the chain's number |n|.
std::unique_ptr<SecureEvent> MakeTask(int n) {
  switch (n) {
    case SYNC_SERVER_TIME:
      return std::make_unique<SyncServerTime>();
    case ADDRESS_INFO:
      return std::make_unique<AddressInfo>();
    case ROM_INFO:
      return std::make_unique<RomInfo>();
    default:
      return std::make_unique<RomDownload>();
  }
}

}  // namespace

DownloadTask::DownloadTask(bool forked, FILE* status, int command_fd) {
  stage_.status = status;
  stage_.commandFd = forked ? command_fd : -1;
}

int DownloadTask::run_first_stage() {
  RunChain(SYNC_SERVER_TIME, ROM_INFO, ROM_INFO);
  return 0;
}

int DownloadTask::run_second_stage(URLWrapper address) {
  stage_.downloadUrl = std::make_unique<URLWrapper>(std::move(address));
  RunChain(ROM_DOWNLOAD, ROM_DOWNLOAD, ROM_DOWNLOAD);
  return 0;
}

int DownloadTask::run_from_command(DownloadStatus n) {
  if (n == RUN_UPDATER) {
    run_updater();
    return 0;
  }
  // All four tasks are made; |n| says how far the chain goes (0 the server time only, 3 and
  // above the whole chain, a negative number the first task only).
  RunChain(SYNC_SERVER_TIME, ROM_DOWNLOAD, n);
  return 0;
}

void DownloadTask::RunChain(DownloadStatus first, DownloadStatus last, int linked_to) {
  std::vector<std::unique_ptr<SecureEvent>> tasks;
  for (int n = first; n <= last; ++n) {
    tasks.push_back(MakeTask(n));
    tasks.back()->stage = &stage_;
    tasks.back()->index = static_cast<DownloadStatus>(n);
  }
  // A front end that went away must make writes fail, not end the process.
  signal(SIGPIPE, SIG_IGN);
  for (size_t i = 0; i + 1 < tasks.size(); ++i) {
    if (tasks[i]->index < linked_to) tasks[i]->next = tasks[i + 1].get();
  }
  tasks.front()->run();
  while (!tasks.empty()) tasks.pop_back();
}

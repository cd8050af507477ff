/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "DownloadTask"

#include "request/download_task.h"

#include <android-base/logging.h>
#include <signal.h>

#include <memory>
#include <vector>

#include "request/addressinfo.h"
#include "request/romdownload.h"
#include "request/rominfo.h"
#include "request/syncservertime.h"

FILE* gStatusWriteStream = nullptr;
FILE* gStatusReadStream = nullptr;

DownloadTask::DownloadTask(bool forked, FILE* write_stream, FILE* read_stream)
    : forked(forked), writeStream(write_stream), readStream(read_stream) {}

DownloadTask::~DownloadTask() {
  cJSON_Delete(answer);
}

int DownloadTask::run_first_stage() {
  auto sync_time = std::make_unique<SyncServerTime>();
  auto address_info = std::make_unique<AddressInfo>();
  auto rom_info = std::make_unique<RomInfo>();
  sync_time->driver = this;
  address_info->driver = this;
  rom_info->driver = this;
  // A front end that went away must make writes fail, not end the process.
  signal(SIGPIPE, SIG_IGN);

  sync_time->next = address_info.get();
  sync_time->index = SYNC_SERVER_TIME;
  address_info->next = rom_info.get();
  address_info->index = ADDRESS_INFO;
  rom_info->next = nullptr;
  rom_info->index = ROM_INFO;
  sync_time->run();

  rom_info.reset();
  address_info.reset();
  sync_time.reset();
  return 0;
}

int DownloadTask::run_second_stage() {
  auto rom_download = std::make_unique<RomDownload>();
  rom_download->driver = this;
  signal(SIGPIPE, SIG_IGN);
  rom_download->next = nullptr;
  rom_download->index = ROM_DOWNLOAD;
  rom_download->run();
  return 0;
}

int DownloadTask::run_from_command(DownloadStatus n) {
  if (n == RUN_UPDATER) {
    run_updater();
    return 0;
  }
  auto sync_time = std::make_unique<SyncServerTime>();
  auto address_info = std::make_unique<AddressInfo>();
  auto rom_info = std::make_unique<RomInfo>();
  auto rom_download = std::make_unique<RomDownload>();
  for (SecureEvent* task : std::vector<SecureEvent*>{sync_time.get(), address_info.get(),
                                                     rom_info.get(), rom_download.get()}) {
    task->driver = this;
  }
  signal(SIGPIPE, SIG_IGN);

  sync_time->index = SYNC_SERVER_TIME;
  address_info->index = ADDRESS_INFO;
  rom_info->index = ROM_INFO;
  rom_download->index = ROM_DOWNLOAD;
  sync_time->next = n > SYNC_SERVER_TIME ? address_info.get() : nullptr;
  address_info->next = n > ADDRESS_INFO ? rom_info.get() : nullptr;
  rom_info->next = n >= ROM_DOWNLOAD ? rom_download.get() : nullptr;
  rom_download->next = nullptr;
  sync_time->run();

  rom_download.reset();
  rom_info.reset();
  address_info.reset();
  sync_time.reset();
  return 0;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "ROMINFO"

#include "request/rominfo.h"

#include <android-base/logging.h>

#include <map>
#include <memory>
#include <vector>

#include "request/download_task.h"
#include "yonda_resolver.h"
#include "yondatools/yonda-dgq/dgqprotocal.h"
#include "yondatools/yonda-update/dir2url.h"

RomInfo::RomInfo() {
  EventWrapper<RomInfo>::Attach(this);
  InitCbmap();
}

RomInfo::~RomInfo() {
  EventWrapper<RomInfo>::Detach(this);
}

std::string RomInfo::getDescriptor() {
  return "RomInfo";
}

void RomInfo::run() {
  LOG(INFO) << ">> RomInfo is running...";
  std::vector<std::string> address = handle_rom_to_url(0);
  if (address.empty()) {
    // No ROM, or no mirror the device can reach: the stage still ends with the ROM state.
    LOG(INFO) << ">> RomInfo has no url info!! End the RomInfo";
    cbmap[OutcomeKey(CURLE_OK)](ROM_INFO);
    return;
  }
  URLWrapper wrapper(address[0], address[1], "", address[2]);
  LOG(DEBUG) << "RomInfo url " << wrapper.scheme << " " << wrapper.host << " " << wrapper.path;
  yondadgq::dgq_write_data({});
  url = wrapper;
  driver->downloadUrl = std::make_unique<URLWrapper>(wrapper);
  resolveName(url, EventWrapper<RomInfo>::fake_callback);
}

int RomInfo::PreExecuted() {
  LOG(DEBUG) << ">> RomInfo::PreExecuted";
  AppendStandardHeaders();
  // A HEAD request: the probe only checks that the package address answers.
  return CurlOptions(curl)
      .Set(CURLOPT_HTTPHEADER, headers)
      .Set(CURLOPT_ERRORBUFFER, errorBuffer)
      .Set(CURLOPT_NOBODY, 1L)
      .Set(CURLOPT_TIMEOUT, 5L)
      .Set(CURLOPT_VERBOSE, 1L)
      .result();
}

int RomInfo::OnExecuted() {
  std::string target = url.url();
  LOG(DEBUG) << ">> RomInfo::OnExecuted, url=" << target;
  return Perform(target);
}

int RomInfo::PostExecuted() {
  LOG(DEBUG) << ">> RomInfo::PostExecuted";
  return SecureEvent::PostExecuted();
}

void RomInfo::InitCbmap() {
  SecureEvent::InitCbmap();
  SetCallback(OutcomeKey(CURLE_OK), [this](DownloadStatus status) {
    status_channel::WriteRomState(driver->writeStream, status, driver->romState);
    RunNextTask("this is the last task, byebye");
    return true;
  });
}

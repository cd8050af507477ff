/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "ROMINFO"

#include "request/rominfo.h"

#include <android-base/logging.h>

#include <memory>
#include <vector>

#include "yondatools/yonda-dgq/dgqprotocal.h"
#include "yondatools/yonda-update/dir2url.h"

RomInfo::RomInfo() : NetworkTask(LOG_TAG) {
  InitCbmap();
}

std::string RomInfo::getDescriptor() {
  return "RomInfo";
}

std::optional<URLWrapper> RomInfo::Address() {
  std::vector<std::string> address = handle_rom_to_url(0);
  if (address.empty()) {
    // No ROM, or no mirror the device can reach: the stage still ends with the ROM state.
    LOG(INFO) << ">> RomInfo has no url info!! End the RomInfo";
    cbmap[OutcomeKey(CURLE_OK)](ROM_INFO);
    return std::nullopt;
  }
  return URLWrapper(address[0], address[1], "", address[2]);
}

void RomInfo::Prepare(const URLWrapper& address) {
  yondadgq::dgq_write_data({});
  stage->downloadUrl = std::make_unique<URLWrapper>(address);
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

void RomInfo::InitCbmap() {
  SecureEvent::InitCbmap();
  SetCallback(OutcomeKey(CURLE_OK), [this](DownloadStatus status) {
    status_channel::WriteRomState(stage->status, status, stage->romState);
    RunNextTask("this is the last task, byebye");
    return true;
  });
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The ROM info task: the last task of the first stage turns the laid-out ROM description into
// the package address, hands it to the download stage through the stage record and probes it
// with a HEAD request.

#pragma once

#include <string>

#include "request/secure_event.h"

class RomInfo : public NetworkTask<RomInfo> {
 public:
  RomInfo();

  std::string getDescriptor() override;
  int PreExecuted() override;
  void InitCbmap() override;

 protected:
  // The package address that the laid-out ROM description gives; without one the stage ends
  // here with the ROM state.
  std::optional<URLWrapper> Address() override;
  // Records the probe's diagnostics event and hands the address to the download stage.
  void Prepare(const URLWrapper& address) override;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The ROM info task: the last task of the first stage turns the laid-out ROM description into
// the package address, hands it to the driver for the download stage and probes it with a HEAD
// request.

#pragma once

#include <string>

#include "common/unique_file.h"
#include "request/secure_event.h"

class RomInfo : public SecureEvent {
 public:
  RomInfo();
  ~RomInfo() override;

  void run() override;
  std::string getDescriptor() override;
  int PreExecuted() override;
  int OnExecuted() override;
  int PostExecuted() override;
  void InitCbmap() override;

 private:
  // Never opened by this task; closed with it if someone did.
  UniqueFile stream;
};

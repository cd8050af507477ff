/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The server time task: the boot environment has no trustworthy clock, so the first task sets it
// from the update host's Date header before anything else talks to the server.

#pragma once

#include <string>

#include "common/unique_file.h"
#include "request/secure_event.h"

class SyncServerTime : public SecureEvent {
 public:
  SyncServerTime();
  ~SyncServerTime() override;

  void run() override;
  std::string getDescriptor() override;
  int PreExecuted() override;
  int OnExecuted() override;
  int PostExecuted() override;
  void InitCbmap() override;

 private:
  // The response header block, kept in "/cache/yonda/time" until the task goes away.
  UniqueFile headerFile;
};

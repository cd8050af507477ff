/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The server time task: the boot environment has no trustworthy clock, so the first task sets it
// from the update host's Date header before anything else talks to the server.

#pragma once

#include <stdio.h>
#include <sys/time.h>

#include <string>

#include "common/unique_file.h"
#include "request/secure_event.h"

// Reads the response header block in |headers| from its start, echoing each line to standard
// output, and returns the time of the last line that mentions "Date": the epoch when none does,
// -1 seconds when its date does not parse.
timeval ReadServerDate(FILE* headers);

class SyncServerTime : public NetworkTask<SyncServerTime> {
 public:
  SyncServerTime();

  std::string getDescriptor() override;
  int PreExecuted() override;

 protected:
  // The update host, with neither path nor query.
  std::optional<URLWrapper> Address() override;
  // Sets the clock from the header block and tells the boot environment it is set.
  void ProcessResponse() override;

 private:
  // The response header block, kept in "/cache/yonda/time" until the task goes away.
  UniqueFile headerFile;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// What the package's installer writes on its pipe, read as the installer runner reads it: lines
// of at most 1023 bytes from fgets, each acted on as an updater command.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "common/unique_file.h"
#include "fuzz/fuzz_support.h"
#include "request/installer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::QuietOutput();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  UniqueFile pipe(fmemopen(const_cast<uint8_t*>(data), size, "r"));
  char buffer[1024];
  while (pipe && fgets(buffer, sizeof(buffer), pipe.get()) != nullptr) HandleUpdaterLine(buffer);
  return 0;
}

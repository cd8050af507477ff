/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The header block the update host answers the server time request with: the lines are read,
// the last one that mentions "Date" is picked and its date parsed. The clock is not touched.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "common/unique_file.h"
#include "fuzz/fuzz_support.h"
#include "request/syncservertime.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::QuietOutput();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The header file is read back as a stream; an empty block is an empty stream.
  static char empty[1];
  UniqueFile headers(size == 0 ? fmemopen(empty, 0, "r")
                               : fmemopen(const_cast<uint8_t*>(data), size, "r"));
  if (headers) ReadServerDate(headers.get());
  return 0;
}

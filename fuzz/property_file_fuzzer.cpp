/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The desk's property file (build.prop syntax), which the front end, the demo and the tests
// write: the properties the program reads are looked up in it, then the one it sets is written
// back. Setting one property must leave every other one as it was.

#include <android-base/file.h>
#include <android-base/properties.h>
#include <cutils/properties.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"

namespace {

constexpr char kSetKey[] = "yonda.timesync.ready";
// Properties the program reads, and one it sets.
const char* const kKeys[] = {
    "ro.bootimage.name",
    "ro.build.tags",
    "debug.logcat",
    "ro.serialno",
    "ro.boot.serialno",
    "ro.yonda.build.international",
    "ro.yonda.build.channel",
    "ro.build.version.incremental",
    kSetKey,
};

std::string gFile;

// Returns the value of every key, read both ways the program reads properties.
std::vector<std::string> ReadAll() {
  std::vector<std::string> values;
  for (const char* key : kKeys) {
    char value[PROPERTY_VALUE_MAX];
    const int length = property_get(key, value, "unset");
    if (length < 0 || length >= PROPERTY_VALUE_MAX || strlen(value) != static_cast<size_t>(length))
      abort();
    values.push_back(android::base::GetProperty(key, "unset"));
  }
  return values;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::QuietOutput();
  gFile = fuzz::MakeScratchDirectory("property_file") + "/device.prop";
  setenv("BUNDLERUN_PROPERTIES", gFile.c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!android::base::WriteStringToFile(std::string(reinterpret_cast<const char*>(data), size),
                                        gFile)) {
    abort();
  }
  std::vector<std::string> before = ReadAll();
  if (!android::base::SetProperty(kSetKey, "1")) abort();
  std::vector<std::string> after = ReadAll();
  before.back() = "1";
  if (before != after) abort();
  return 0;
}

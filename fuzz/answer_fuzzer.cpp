/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update server's answer as the first stage receives it: the body is put where the transfer
// writes it, and the update query task takes it from there (framing, base64, decryption, JSON,
// the ROM layout, the status file and the dump), in a scratch tree that is emptied after each run.

#include <android-base/file.h>
#include <cJSON.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <unordered_set>

#include "common/paths.h"
#include "fuzz/fuzz_support.h"
#include "request/addressinfo.h"
#include "request/download_task.h"

namespace {

std::string gRoot;

// Every block cJSON holds. The layout's deleter frees only the root of the answer, which on a
// device lasts until the process ends; here what it leaves is released after each run.
std::unordered_set<void*>& JsonBlocks() {
  static auto* blocks = new std::unordered_set<void*>();
  return *blocks;
}

void* JsonAllocate(size_t size) {
  void* block = malloc(size);
  JsonBlocks().insert(block);
  return block;
}

void JsonRelease(void* block) {
  JsonBlocks().erase(block);
  free(block);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::QuietOutput();
  gRoot = fuzz::MakeScratchDirectory("answer");
  fuzz::MoveFixedPathsUnder(gRoot);
  cJSON_Hooks hooks = {JsonAllocate, JsonRelease};
  cJSON_InitHooks(&hooks);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::MakeWorkDirectories();
  android::base::WriteStringToFile(std::string(reinterpret_cast<const char*>(data), size),
                                   kResponseBodyPath);
  {
    DownloadTask driver(/*forked=*/true, nullptr, nullptr);
    AddressInfo task;
    task.driver = &driver;
    task.PostExecuted();
  }
  for (void* block : JsonBlocks()) free(block);
  JsonBlocks().clear();
  fuzz::RemoveTree(gRoot + "/cache");
  fuzz::RemoveTree(gRoot + "/tmp");
  return 0;
}

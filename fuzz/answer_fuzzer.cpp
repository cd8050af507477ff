/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update server's answer as the first stage receives it: the body is put where the transfer
// writes it, and the update query task takes it from there (framing, base64, decryption, JSON,
// the ROM layout, the status file and the dump), in a scratch tree that is emptied after each run.
// Random bytes seldom decipher to a document, so the first byte chooses what the rest is: when it
// is odd, the rest is a clear answer, enciphered and encoded as the server does before it is
// handed over; otherwise the rest is the body itself.

#include <android-base/file.h>
#include <cJSON.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <unordered_set>

#include "common/cipher.h"
#include "common/paths.h"
#include "fuzz/fuzz_support.h"
#include "request/addressinfo.h"
#include "request/stage_record.h"
#include "request/update_checker.h"

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

// Returns |clear| enciphered and base64-encoded, as the update server sends an answer.
std::string AsTheServerSends(const std::string& clear) {
  char* cipher = nullptr;
  int cipher_len = 0;
  // The cipher hands its buffer over on failure too.
  const int encrypted = AES_CBC_PKCS5Padding_Encrypt(kUpdateCipherKey, &cipher, &cipher_len,
                                                     clear.data(), static_cast<int>(clear.size()));
  CipherBuffer owned_cipher(cipher);
  if (encrypted != 0) return "";
  char* text = nullptr;
  size_t text_len = 0;
  if (base64_encode(&text, &text_len, cipher, cipher_len) != 0) return "";
  CipherBuffer owned_text(text);
  return std::string(text, text_len - 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] % 2 == 1) body = AsTheServerSends(body);
  fuzz::MakeWorkDirectories();
  android::base::WriteStringToFile(body, kResponseBodyPath);
  {
    StageRecord stage;
    AddressInfo task;
    task.stage = &stage;
    task.PostExecuted();
  }
  for (void* block : JsonBlocks()) free(block);
  JsonBlocks().clear();
  fuzz::RemoveTree(gRoot + "/cache");
  fuzz::RemoveTree(gRoot + "/tmp");
  return 0;
}

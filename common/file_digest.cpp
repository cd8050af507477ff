/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "common/file_digest.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <openssl/md5.h>
#include <stdlib.h>
#include <unistd.h>

#include <vector>

#include "common/cipher.h"

namespace {

constexpr size_t kChunkSize = 1 << 20;

}  // namespace

std::string Md5OfFile(const std::string& path) {
  android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd == -1) return "";
  MD5_CTX context;
  MD5_Init(&context);
  std::vector<uint8_t> chunk(kChunkSize);
  ssize_t n;
  while ((n = TEMP_FAILURE_RETRY(read(fd.get(), chunk.data(), chunk.size()))) > 0) {
    MD5_Update(&context, chunk.data(), n);
  }
  if (n < 0) return "";
  uint8_t digest[MD5_DIGEST_LENGTH];
  MD5_Final(digest, &context);
  char* hex = nullptr;
  string_to_hex(&hex, reinterpret_cast<const char*>(digest), sizeof(digest));
  std::string text = hex;
  free(hex);
  return text;
}

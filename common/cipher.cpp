/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "common/cipher.h"

#include <openssl/aes.h>
#include <openssl/base64.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

namespace {

constexpr int kBlockSize = 16;
constexpr int kKeyBits = 128;
// The update server and the device share this vector; every call starts from it afresh.
constexpr char kInitVector[] = "1357924680135792";
constexpr char kHexDigits[] = "0123456789abcdef";

// Returns the length |len| grows to when padded: always at least one byte, at most a block.
int PaddedLength(int len) {
  return (len / kBlockSize) * kBlockSize + kBlockSize;
}

// Pads |in| like a plaintext and runs it through AES-CBC in |direction| into a new *out.
int RunCbc(const char* key, char** out, int* outLen, const char* in, int inLen, int direction) {
  const int padded = PaddedLength(inLen);
  const uint8_t pad = static_cast<uint8_t>(inLen % kBlockSize != 0 ? padded - inLen : kBlockSize);
  std::vector<uint8_t> work(padded, pad);
  if (inLen > 0) memcpy(work.data(), in, inLen);

  *out = static_cast<char*>(malloc(padded + 1));
  (*out)[padded] = '\0';
  *outLen = padded;

  AES_KEY schedule;
  const uint8_t* key_bytes = reinterpret_cast<const uint8_t*>(key);
  int rc = direction == AES_ENCRYPT ? AES_set_encrypt_key(key_bytes, kKeyBits, &schedule)
                                    : AES_set_decrypt_key(key_bytes, kKeyBits, &schedule);
  if (rc < 0) {
    puts("cannot to set aes key");
    return -1;
  }
  if (rc == 0)
    puts(direction == AES_ENCRYPT ? "set encrypt key success" : "set decrypt key success");

  uint8_t iv[sizeof(kInitVector)];
  memcpy(iv, kInitVector, sizeof(kInitVector));
  AES_cbc_encrypt(work.data(), reinterpret_cast<uint8_t*>(*out), padded, &schedule, iv, direction);
  return 0;
}

}  // namespace

int AES_CBC_PKCS5Padding_Encrypt(const char* key, char** out, int* outLen, const char* in,
                                 int inLen) {
  return RunCbc(key, out, outLen, in, inLen, AES_ENCRYPT);
}

int AES_CBC_PKCS5Padding_Decrypt(const char* key, char** out, int* outLen, const char* in,
                                 int inLen) {
  return RunCbc(key, out, outLen, in, inLen, AES_DECRYPT);
}

int base64_encode(char** out, size_t* outLen, const char* in, size_t inLen) {
  if (!EVP_EncodedLength(outLen, inLen)) {
    printf("failed to calculate base64-encode length(%zu)\n", inLen);
    return -1;
  }
  *out = static_cast<char*>(calloc(*outLen, 1));
  size_t written = EVP_EncodeBlock(reinterpret_cast<uint8_t*>(*out),
                                   reinterpret_cast<const uint8_t*>(in), inLen);
  if (written != *outLen - 1) {
    puts("failed to encode base64");
    free(*out);
    return -1;
  }
  return 0;
}

int base64_decode(char** out, size_t* outLen, const char* in, size_t inLen) {
  if (!EVP_DecodedLength(outLen, inLen)) {
    printf("failed to calculate base64-decode length(%zu)\n", inLen);
    return -1;
  }
  *out = static_cast<char*>(malloc(*outLen));
  const size_t max_len = *outLen;
  if (!EVP_DecodeBase64(reinterpret_cast<uint8_t*>(*out), outLen, max_len,
                        reinterpret_cast<const uint8_t*>(in), inLen)) {
    puts("failed to decode base64");
    free(*out);
    return -1;
  }
  return 0;
}

int string_to_hex(char** out, const char* in, size_t len) {
  *out = static_cast<char*>(calloc(2 * len | 1, 1));
  for (size_t i = 0; i < len; ++i) {
    const uint8_t byte = static_cast<uint8_t>(in[i]);
    (*out)[2 * i] = kHexDigits[byte >> 4];
    (*out)[2 * i + 1] = kHexDigits[byte & 0x0f];
  }
  return 0;
}

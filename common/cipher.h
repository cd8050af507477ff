/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The byte work of the update query: AES-128-CBC with PKCS#5 padding and a fixed IV, base64 and
// lower-case hexadecimal. Every result is a malloc'ed buffer that the caller frees with free();
// each function returns 0 on success and -1 on failure, which it reports on standard output.

#pragma once

#include <stddef.h>
#include <stdlib.h>

#include <memory>

// Owns a buffer that one of the functions below returned.
struct CipherBufferFree {
  void operator()(char* buffer) const { free(buffer); }
};
using CipherBuffer = std::unique_ptr<char, CipherBufferFree>;

// Enciphers |in|. *out holds the padded length of ciphertext and a terminating zero.
int AES_CBC_PKCS5Padding_Encrypt(const char* key, char** out, int* outLen, const char* in,
                                 int inLen);

// Deciphers |in|. The ciphertext is padded like a plaintext first, so *outLen is inLen + 16 for
// a whole number of blocks: the plaintext with its own padding, one extra block, and a zero.
int AES_CBC_PKCS5Padding_Decrypt(const char* key, char** out, int* outLen, const char* in,
                                 int inLen);

// Encodes |in| as zero-terminated base64; *outLen is the text length + 1.
int base64_encode(char** out, size_t* outLen, const char* in, size_t inLen);

// Decodes base64 |in|; *outLen is the number of decoded bytes (not zero-terminated).
int base64_decode(char** out, size_t* outLen, const char* in, size_t inLen);

// Renders |len| bytes as zero-terminated lower-case hexadecimal.
int string_to_hex(char** out, const char* in, size_t len);

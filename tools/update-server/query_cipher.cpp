/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "query_cipher.h"

#include <openssl/evp.h>

#include <memory>
#include <vector>

namespace {

constexpr unsigned char kKey[] = "bravocharlie4207";
constexpr unsigned char kInitVector[] = "1357924680135792";

struct CipherContextDeleter {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter>;

// Runs |in| through AES-128-CBC with PKCS#7 padding; returns nothing on a bad padding.
std::optional<std::string> Crypt(const std::string& in, bool encrypt) {
  CipherContext context(EVP_CIPHER_CTX_new());
  if (!context || EVP_CipherInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, kKey, kInitVector,
                                    encrypt ? 1 : 0) != 1) {
    return std::nullopt;
  }
  std::vector<unsigned char> out(in.size() + EVP_MAX_BLOCK_LENGTH);
  int written = 0;
  int final_written = 0;
  if (EVP_CipherUpdate(context.get(), out.data(), &written,
                       reinterpret_cast<const unsigned char*>(in.data()),
                       static_cast<int>(in.size())) != 1 ||
      EVP_CipherFinal_ex(context.get(), out.data() + written, &final_written) != 1) {
    return std::nullopt;
  }
  return std::string(reinterpret_cast<char*>(out.data()), written + final_written);
}

}  // namespace

std::string EncipherAnswer(const std::string& plain) {
  std::string cipher = *Crypt(plain, /*encrypt=*/true);
  std::vector<unsigned char> text(4 * ((cipher.size() + 2) / 3) + 1);
  int length = EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(cipher.data()),
                               static_cast<int>(cipher.size()));
  return std::string(reinterpret_cast<char*>(text.data()), length);
}

std::optional<std::string> DecipherQuery(const std::string& query) {
  if (query.empty() || query.size() % 4 != 0) return std::nullopt;
  std::vector<unsigned char> decoded(query.size() / 4 * 3);
  int length = EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char*>(query.data()),
                               static_cast<int>(query.size()));
  if (length < 0) return std::nullopt;
  // DecodeBlock counts the bytes that '=' padding stands for; they are not data.
  if (query.back() == '=') --length;
  if (query.size() > 1 && query[query.size() - 2] == '=') --length;
  return Crypt(std::string(reinterpret_cast<char*>(decoded.data()), length), /*encrypt=*/false);
}

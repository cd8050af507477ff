/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// Known answers made with the openssl command line (tests/data/cipher/make_vectors.sh).

#include "common/cipher.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "harness/harness.h"
#include "request/update_checker.h"

namespace {

std::string Vector(const std::string& name) {
  return harness::ReadFile(std::string(TEST_DATA_DIR) + "/cipher/" + name);
}

// Runs |call| with standard output captured and returns what it printed.
template <typename Call>
std::string Printed(Call call) {
  testing::internal::CaptureStdout();
  call();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST(CipherTest, MatchesOpensslInBothDirections) {
  for (int n : {0, 16, 17, 47}) {
    SCOPED_TRACE(n);
    const std::string plain = Vector("plain" + std::to_string(n) + ".bin");
    const std::string cipher = Vector("cipher" + std::to_string(n) + ".bin");
    const std::string decipher = Vector("decipher" + std::to_string(n) + ".bin");
    ASSERT_EQ(static_cast<size_t>(n), plain.size());

    char* out = nullptr;
    int out_len = 0;
    EXPECT_EQ("set encrypt key success\n", Printed([&] {
                EXPECT_EQ(0, AES_CBC_PKCS5Padding_Encrypt(kUpdateCipherKey, &out, &out_len,
                                                          plain.data(), plain.size()));
              }));
    EXPECT_EQ(cipher, std::string(out, out_len));
    EXPECT_EQ('\0', out[out_len]);
    free(out);

    // The ciphertext is padded like a plaintext before deciphering: one extra block comes out.
    EXPECT_EQ("set decrypt key success\n", Printed([&] {
                EXPECT_EQ(0, AES_CBC_PKCS5Padding_Decrypt(kUpdateCipherKey, &out, &out_len,
                                                          cipher.data(), cipher.size()));
              }));
    EXPECT_EQ(static_cast<int>(cipher.size()) + 16, out_len);
    EXPECT_EQ(decipher, std::string(out, out_len));
    EXPECT_EQ(plain, std::string(out, plain.size()));
    EXPECT_EQ('\0', out[out_len]);
    free(out);
  }
}

}  // namespace

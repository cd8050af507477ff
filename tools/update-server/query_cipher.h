/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The server's side of the update query cipher: AES-128-CBC with PKCS#7 padding under the key
// and IV the devices use, carried as base64.

#pragma once

#include <optional>
#include <string>

// Returns base64 of |plain| enciphered.
std::string EncipherAnswer(const std::string& plain);

// Returns the clear text of base64 |query|, or nothing when it does not decode or decipher.
std::optional<std::string> DecipherQuery(const std::string& query);

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update request: the clear device document, its enciphered form parameters and the
// address of the update server.

#pragma once

#include <string>

#include "common/string_map.h"
#include "common/url_wrapper.h"

// The key that enciphers the query and deciphers the answer.
inline constexpr char kUpdateCipherKey[] = "bravocharlie4207";

// Builds the device document (facts, fixed members and "options") as formatted JSON in |out|.
// The integer is part of the boot environment's interface and is not used.
int getUpdateJsonMap(int unused, std::string& out);

// Fills the header entries of an update request.
int getUpdateUrlHeader(StringMap& headers);

// Writes the clear document to the scratch tree and fills the form parameters q, t and s.
// |unused| is part of the boot environment's interface and is not used. Returns -1 when
// enciphering or encoding failed.
int getUpdateUrlParams(std::string& json, std::string& unused, std::string&& t, int s,
                       StringMap& params);

// Prepares the update query: form parameters in |params|, server address in |url|.
int checkUpdateInfo(StringMap& params, URLWrapper& url);

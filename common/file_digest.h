/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#pragma once

#include <string>

// Returns the lower-case hexadecimal MD5 digest of the file at |path|, or an empty string when
// it cannot be read. The front end compares it with the ROM's "md5" file.
std::string Md5OfFile(const std::string& path);

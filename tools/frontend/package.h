/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#pragma once

#include <string>

// Where an update package keeps its installer.
inline constexpr char kUpdateBinaryEntry[] = "META-INF/com/google/android/update-binary";

// Extracts the installer of the zip |package| to |destination| with mode 0755. Returns false,
// with |error| set, when the package or the entry cannot be read or the file written.
bool ExtractUpdateBinary(const std::string& package, const std::string& destination,
                         std::string* error);

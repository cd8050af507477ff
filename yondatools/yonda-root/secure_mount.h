/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The one gate through which the program writes files, its matching reader, and the boot
// environment check. On a release build in the update boot environment only the scratch trees and
// a short list of ROM information files may be written.

#pragma once

#include <stdint.h>

#include <string>

// Returns whether |path| may be written on this build in this environment.
bool allowcreate(std::string path);

// Writes |data| to |path| when the write guard allows it. Returns 0 on success and also when the
// guard refused (the refusal is logged), or the negated errno when opening or writing failed.
int32_t create_file_and_writedata(const std::string& path, const std::string& data);

// As above, for directory + "/" + name.
int32_t create_file_and_writedata(const std::string& directory, const std::string& name,
                                  const std::string& data);

// Returns the whole content of |path|, or an empty string on any failure.
std::string open_file_and_readdata(const std::string& path);

// Returns the boot image name: "yonda" in the update boot environment, "android" in the system.
std::string whichEnvironment();

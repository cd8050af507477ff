/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The ROM directory layout under the scratch tree, the package address built from it, and the
// package size read back from it.

#pragma once

#include <cJSON.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

// A parsed update answer; the deleter is chosen by whoever parsed it.
using JsonHandle = std::unique_ptr<cJSON, std::function<void(cJSON*)>>;

// Lays the offered "LatestRom" of |document| out under the scratch tree and hands the document
// back to the caller.
JsonHandle handle_latestrom_to_dir(JsonHandle document);

// Points the scratch "CurrentRom" link at |target|.
void create_symlink_forrom(const std::string& target);

// Writes |text| to the scratch status file. Returns the writer's status.
int32_t report_status(const std::string& text);

// Releases the root item of an update answer. Only the root block is freed: the answer's items
// stay allocated until the process ends, which is short.
void simple_free_json(cJSON* tree);

// Returns {scheme, host, path} of the package on the first plain-HTTP mirror at or after
// |first_mirror|, or an empty vector when no address can be built.
std::vector<std::string> handle_rom_to_url(int first_mirror);

// Returns the text of the current ROM's "filesize" file, or an empty string when it cannot be
// read.
std::string getFileSize();

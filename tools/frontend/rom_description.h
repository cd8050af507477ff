/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The offered ROM as the first stage laid it out under the scratch tree, and the package
// address the device derives from it.

#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

struct RomDescription {
  std::string rom_dir;  // where "CurrentRom" points
  std::string version;
  std::string current_version;
  std::string filename;
  std::string md5;
  std::optional<uint64_t> size;
  std::vector<std::string> mirrors;  // the "host" text of mirror 0, 1, ...
};

// Reads the ROM description under |scratch_dir|; nothing (with |error| set) when none is laid out.
std::optional<RomDescription> ReadRomDescription(const std::string& scratch_dir,
                                                 std::string* error);

struct PackageAddress {
  int mirror = -1;  // the mirror chosen
  std::string scheme;
  std::string host;
  std::string path;
  std::string url() const { return scheme + host + path; }
};

// Returns the address the device downloads from: the first mirror whose host does not name
// https, with the version and file name of the mirror directory or else of the ROM directory,
// a base path in the host moved in front of the path. Nothing, with |error| set, when no address
// can be built.
std::optional<PackageAddress> ChoosePackageAddress(const RomDescription& rom, std::string* error);

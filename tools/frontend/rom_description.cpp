/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "rom_description.h"

#include <android-base/file.h>
#include <android-base/parseint.h>

namespace {

constexpr size_t kSchemeLength = 7;  // "http://"

// Reads |path| whole; returns false when it cannot be read.
bool ReadText(const std::string& path, std::string* text) {
  return android::base::ReadFileToString(path, text);
}

}  // namespace

std::optional<RomDescription> ReadRomDescription(const std::string& scratch_dir,
                                                 std::string* error) {
  RomDescription rom;
  if (!android::base::Realpath(scratch_dir + "/CurrentRom", &rom.rom_dir)) {
    *error = "no ROM is laid out under " + scratch_dir;
    return std::nullopt;
  }
  ReadText(rom.rom_dir + "/version", &rom.version);
  ReadText(rom.rom_dir + "/curr_version", &rom.current_version);
  ReadText(rom.rom_dir + "/filename", &rom.filename);
  ReadText(rom.rom_dir + "/md5", &rom.md5);
  std::string size_text;
  uint64_t size = 0;
  if (ReadText(rom.rom_dir + "/filesize", &size_text) &&
      android::base::ParseUint(size_text, &size)) {
    rom.size = size;
  }
  std::string host;
  for (int n = 0; ReadText(rom.rom_dir + "/" + std::to_string(n) + "/host", &host); ++n) {
    rom.mirrors.push_back(host);
  }
  return rom;
}

std::optional<PackageAddress> ChoosePackageAddress(const RomDescription& rom, std::string* error) {
  PackageAddress address;
  for (size_t n = 0; n < rom.mirrors.size(); ++n) {
    const std::string& host = rom.mirrors[n];
    if (host.size() < 5 || host.find("https") == std::string::npos) {
      address.mirror = static_cast<int>(n);
      break;
    }
  }
  if (address.mirror < 0) {
    *error = rom.mirrors.empty() ? "the answer lists no mirror" : "every mirror is https";
    return std::nullopt;
  }
  const std::string mirror_dir = rom.rom_dir + "/" + std::to_string(address.mirror);
  std::string version, filename;
  if (!ReadText(mirror_dir + "/version", &version) &&
      !ReadText(rom.rom_dir + "/version", &version)) {
    *error = "no version file";
    return std::nullopt;
  }
  if (!ReadText(mirror_dir + "/filename", &filename) &&
      !ReadText(rom.rom_dir + "/filename", &filename)) {
    *error = "no filename file";
    return std::nullopt;
  }
  const std::string& host_text = rom.mirrors[address.mirror];
  address.scheme = "http://";
  address.host = host_text.size() > kSchemeLength ? host_text.substr(kSchemeLength) : "";
  address.path = "/" + version + "/" + filename;
  size_t slash = address.host.find('/');
  if (slash != std::string::npos) {
    address.path = address.host.substr(slash) + address.path;
    address.host.resize(slash);
  }
  return address;
}

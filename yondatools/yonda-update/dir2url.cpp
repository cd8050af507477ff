/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The offered ROM as small one-value files under "/tmp/download", so that the ROM info task,
// the download task and the persistent dump can read it back without the answer document.

#include "yondatools/yonda-update/dir2url.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "common/paths.h"
#include "yondatools/yonda-root/secure_mount.h"

namespace {

constexpr char kRule[] = "====================================";
// More mirrors than a server ever offers; an answer beyond this is not laid out further.
constexpr int kMaxMirrors = 100;
// Mirror directories are made without search bits (mode 0644); the process runs as root.
constexpr mode_t kMirrorDirMode = 0644;

// Returns the string value of |object|[name], or null when it is missing or not a string.
const char* StringMember(const cJSON* object, const std::string& name) {
  return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name.c_str()));
}

// Writes |value| as file |name| in |directory|; an answer without it leaves the file out.
void WriteAnswerFile(const std::string& directory, const std::string& name, const char* value) {
  if (value == nullptr) {
    LOG(ERROR) << "update answer has no string \"" << name << "\", " << directory << "/" << name
               << " not written";
    return;
  }
  create_file_and_writedata(directory, name, value);
}

// Returns the byte count of a size such as "800M" or "2.5G", or nothing when |size| has another
// unit (the caller then writes no size) or a number that does not fit.
std::optional<int64_t> RomSizeInBytes(const std::string& size, bool* has_unit) {
  *has_unit = false;
  if (size.empty()) return std::nullopt;
  double scale;
  switch (size.back()) {
    case 'M':
      scale = 1024.0 * 1024.0;
      break;
    case 'G':
      scale = 1024.0 * 1024.0 * 1024.0;
      break;
    default:
      return std::nullopt;
  }
  *has_unit = true;
  double bytes;
  try {
    bytes = std::stod(size.substr(0, size.size() - 1)) * scale;
  } catch (const std::logic_error&) {
    return std::nullopt;
  }
  // Values that would not survive the conversion to a 64-bit count are refused.
  if (!std::isfinite(bytes) || bytes >= 9223372036854775808.0 || bytes <= -9223372036854775808.0) {
    return std::nullopt;
  }
  return static_cast<int64_t>(bytes);
}

// Makes one numbered directory per mirror of the answer's "MirrorList", each holding "host".
void LayOutMirrors(const cJSON* document, const std::string& rom_dir) {
  const cJSON* list = cJSON_GetObjectItemCaseSensitive(document, kMirrorListName.c_str());
  int count = cJSON_GetArraySize(list);
  LOG(DEBUG) << ">> MirrorList:" << count;
  if (list == nullptr || !cJSON_IsArray(list)) {
    LOG(ERROR) << "update answer has no \"" << kMirrorListName << "\" array, no mirror laid out";
    return;
  }
  if (count > kMaxMirrors) {
    LOG(ERROR) << "update answer lists " << count << " mirrors, only the first " << kMaxMirrors
               << " are laid out";
    count = kMaxMirrors;
  }
  for (int i = 0; i < count; ++i) {
    std::string mirror_dir = rom_dir + "/" + std::to_string(i);
    if (mkdir(mirror_dir.c_str(), kMirrorDirMode) != 0 && errno != EEXIST) {
      int error = errno;
      LOG(ERROR) << "failed to create " << mirror_dir << "(" << error << ")" << strerror(error);
      continue;
    }
    const char* mirror = cJSON_GetStringValue(cJSON_GetArrayItem(list, i));
    if (mirror != nullptr) LOG(INFO) << ">> \t Mirror " << i << ":" << mirror;
    WriteAnswerFile(mirror_dir, kHostKey, mirror);
  }
}

// Writes the layout of the ROM of |kind| from |document| and hands the document back.
JsonHandle handle_yondado(JsonHandle document, const std::string& kind) {
  const cJSON* rom = cJSON_GetObjectItemCaseSensitive(document.get(), kind.c_str());
  const char* version = StringMember(rom, kVersionKey);
  const char* filename = StringMember(rom, kFilenameKey);
  const char* current_version = StringMember(
      cJSON_GetObjectItemCaseSensitive(document.get(), kCurrentRomName.c_str()), kVersionKey);
  const std::string rom_dir = kind == kLatestRomName ? kTmpLatestRomDir : kTmpCrossRomDir;

  WriteAnswerFile(rom_dir, kVersionKey, version);
  WriteAnswerFile(rom_dir, kFilenameKey, filename);
  WriteAnswerFile(rom_dir, kCurrVersionKey, current_version);

  const char* size = StringMember(rom, kFilesizeKey);
  LOG(INFO) << kRule;
  LOG(INFO) << ">> Now we have " << (current_version ? current_version : "");
  LOG(INFO) << ">> Download ROM info:" << (version ? version : "") << " - "
            << (filename ? filename : "") << ", " << (size ? size : "");
  LOG(INFO) << kRule;
  if (size == nullptr || *size == '\0') {
    WriteAnswerFile(rom_dir, kFilesizeKey, nullptr);
  } else {
    bool has_unit;
    std::optional<int64_t> bytes = RomSizeInBytes(size, &has_unit);
    if (bytes) {
      create_file_and_writedata(rom_dir, kFilesizeKey, std::to_string(*bytes));
    } else if (has_unit) {
      LOG(ERROR) << "update answer has a bad \"" << kFilesizeKey << "\" \"" << size << "\", "
                 << rom_dir << "/" << kFilesizeKey << " not written";
    }
  }

  LayOutMirrors(document.get(), rom_dir);
  WriteAnswerFile(rom_dir, kValidateName, StringMember(rom, kValidateName));
  WriteAnswerFile(rom_dir, kMd5Key, StringMember(rom, kMd5Key));
  create_symlink_forrom(rom_dir);
  return document;
}

// Reads file |name| of the chosen mirror, or of the ROM directory when the mirror has none.
bool ReadRomFile(const std::string& mirror_dir, const std::string& rom_dir, const std::string& name,
                 std::string* content) {
  return android::base::ReadFileToString(mirror_dir + "/" + name, content) ||
         android::base::ReadFileToString(rom_dir + "/" + name, content);
}

}  // namespace

JsonHandle handle_latestrom_to_dir(JsonHandle document) {
  return handle_yondado(std::move(document), kLatestRomName);
}

void create_symlink_forrom(const std::string& target) {
  // access() follows the link: a dangling old link is not seen and symlink() then fails.
  if (access(kTmpCurrentRomDir.c_str(), F_OK) == 0) unlink(kTmpCurrentRomDir.c_str());
  symlink(target.c_str(), kTmpCurrentRomDir.c_str());
  LOG(INFO) << "Create the CurrentRom info \"" << kTmpCurrentRomDir << "\" -> \"" << target << "\"";
}

int32_t report_status(const std::string& text) {
  return create_file_and_writedata(kTmpDownloadDir, kStatusName, text);
}

void simple_free_json(cJSON* tree) {
  cJSON_free(tree);
}

std::vector<std::string> handle_rom_to_url(int first_mirror) {
  std::string rom_dir;
  if (!android::base::Realpath(kTmpCurrentRomDir, &rom_dir)) {
    PLOG(ERROR) << "failed to get realpath of \"" << kTmpCurrentRomDir << "\"";
    return {};
  }

  // Plain-HTTP mirrors are preferred: the first one whose host does not name https is taken.
  std::string mirror_dir;
  std::string host;
  for (int n = first_mirror;; ++n) {
    mirror_dir = rom_dir + "/" + std::to_string(n);
    if (!android::base::ReadFileToString(mirror_dir + "/" + kHostKey, &host)) {
      PLOG(ERROR) << "failed to read host";
      return {};
    }
    if (host.size() < 5 || host.find("https") == std::string::npos) break;
  }

  std::string version, filename;
  if (!ReadRomFile(mirror_dir, rom_dir, kVersionKey, &version)) {
    PLOG(ERROR) << "failed to read version";
    return {};
  }
  if (!ReadRomFile(mirror_dir, rom_dir, kFilenameKey, &filename)) {
    PLOG(ERROR) << "failed to read filename";
    return {};
  }

  // The host text carries its scheme ("http://"); the package is always fetched over http.
  std::string address = host.size() > 7 ? host.substr(7) : "";
  std::string path = "/" + version + "/" + filename;
  size_t slash = address.find('/');
  if (slash != std::string::npos) {
    path = address.substr(slash) + path;
    address.resize(slash);
  }
  return {"http://", address, path};
}

std::string getFileSize() {
  std::string rom_dir;
  if (!android::base::Realpath(kTmpCurrentRomDir, &rom_dir)) {
    PLOG(ERROR) << "failed to get realpath";
    return "";
  }
  std::string size;
  if (!android::base::ReadFileToString(rom_dir + "/" + kFilesizeKey, &size)) {
    PLOG(ERROR) << "failed to get filesize";
    return "";
  }
  return size;
}

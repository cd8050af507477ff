/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// System properties on a desk host. The device's property service is replaced by a file in
// build.prop syntax named by BUNDLERUN_PROPERTIES, so that the program, its parent and the tests
// share one view of the properties. Every read sees the file as it is at that moment; a write
// replaces the file atomically. Without the variable the properties live in this process only.

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr char kPropertiesFileEnv[] = "BUNDLERUN_PROPERTIES";

std::mutex& MemoryStoreLock() {
  static std::mutex lock;
  return lock;
}

std::map<std::string, std::string>& MemoryStore() {
  static auto* store = new std::map<std::string, std::string>();
  return *store;
}

// Splits one build.prop line into key and value. Returns false for blank lines, comments and
// lines without '='. The key is trimmed; the value is kept exactly as it stands.
bool ParsePropertyLine(const std::string& line, std::string* key, std::string* value) {
  std::string trimmed = android::base::Trim(line);
  if (trimmed.empty() || trimmed[0] == '#') return false;
  size_t eq = line.find('=');
  if (eq == std::string::npos) return false;
  *key = android::base::Trim(line.substr(0, eq));
  *value = line.substr(eq + 1);
  return !key->empty();
}

// Returns the raw value of |key| (the last line for it wins), or nothing when it is unset.
std::optional<std::string> LookupProperty(const std::string& key) {
  const char* file = getenv(kPropertiesFileEnv);
  if (file == nullptr || *file == '\0') {
    std::lock_guard<std::mutex> guard(MemoryStoreLock());
    auto it = MemoryStore().find(key);
    if (it == MemoryStore().end()) return std::nullopt;
    return it->second;
  }
  std::string text;
  if (!android::base::ReadFileToString(file, &text)) return std::nullopt;
  std::optional<std::string> result;
  std::string line_key, line_value;
  for (const std::string& line : android::base::Split(text, "\n")) {
    if (ParsePropertyLine(line, &line_key, &line_value) && line_key == key) result = line_value;
  }
  return result;
}

// Rewrites |file| with |key| set to |value|: earlier lines for the key are dropped and the new
// line goes last. The new content is written to a temporary file beside it and renamed over it,
// so a reader in another process sees either the old or the new file, never a partial one.
bool RewritePropertyFile(const std::string& file, const std::string& key,
                         const std::string& value) {
  std::string text;
  android::base::ReadFileToString(file, &text);  // A missing file starts empty.
  std::string out;
  std::string line_key, line_value;
  std::vector<std::string> lines = android::base::Split(text, "\n");
  if (!lines.empty() && lines.back().empty()) lines.pop_back();
  for (const std::string& line : lines) {
    if (ParsePropertyLine(line, &line_key, &line_value) && line_key == key) continue;
    out += line + "\n";
  }
  out += key + "=" + value + "\n";

  std::string tmp = file + ".XXXXXX";
  android::base::unique_fd fd(mkstemp(tmp.data()));
  if (fd == -1) return false;
  if (!android::base::WriteStringToFd(out, fd) || fchmod(fd, 0644) != 0) {
    unlink(tmp.c_str());
    return false;
  }
  fd.reset();
  if (rename(tmp.c_str(), file.c_str()) != 0) {
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

}  // namespace

namespace android {
namespace base {

std::string GetProperty(const std::string& key, const std::string& default_value) {
  std::optional<std::string> value = LookupProperty(key);
  return (value && !value->empty()) ? *value : default_value;
}

bool SetProperty(const std::string& key, const std::string& value) {
  const char* file = getenv(kPropertiesFileEnv);
  if (file == nullptr || *file == '\0') {
    std::lock_guard<std::mutex> guard(MemoryStoreLock());
    MemoryStore()[key] = value;
    return true;
  }
  return RewritePropertyFile(file, key, value);
}

}  // namespace base
}  // namespace android

int property_get(const char* key, char* value, const char* default_value) {
  std::optional<std::string> stored = LookupProperty(key);
  const char* source = (stored && !stored->empty()) ? stored->c_str() : default_value;
  if (source == nullptr) source = "";
  size_t len = strnlen(source, PROPERTY_VALUE_MAX - 1);
  memcpy(value, source, len);
  value[len] = '\0';
  return static_cast<int>(len);
}

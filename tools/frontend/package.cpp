/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "package.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <memory>

namespace {

struct ArchiveCloser {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
struct EntryCloser {
  void operator()(zip_file_t* entry) const { zip_fclose(entry); }
};

}  // namespace

bool ExtractUpdateBinary(const std::string& package, const std::string& destination,
                         std::string* error) {
  int zip_error = 0;
  std::unique_ptr<zip_t, ArchiveCloser> archive(zip_open(package.c_str(), ZIP_RDONLY, &zip_error));
  if (!archive) {
    zip_error_t details;
    zip_error_init_with_code(&details, zip_error);
    *error = "cannot open " + package + ": " + zip_error_strerror(&details);
    zip_error_fini(&details);
    return false;
  }
  std::unique_ptr<zip_file_t, EntryCloser> entry(zip_fopen(archive.get(), kUpdateBinaryEntry, 0));
  if (!entry) {
    *error = std::string("no ") + kUpdateBinaryEntry + " in " + package + ": " +
             zip_strerror(archive.get());
    return false;
  }
  unlink(destination.c_str());
  android::base::unique_fd out(
      open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
  if (out == -1) {
    *error = "cannot create " + destination + ": " + strerror(errno);
    return false;
  }
  char buffer[64 * 1024];
  zip_int64_t n;
  while ((n = zip_fread(entry.get(), buffer, sizeof(buffer))) > 0) {
    if (!android::base::WriteFully(out, buffer, n)) {
      *error = "cannot write " + destination + ": " + strerror(errno);
      return false;
    }
  }
  if (n < 0) {
    *error =
        std::string("cannot read ") + kUpdateBinaryEntry + ": " + zip_file_strerror(entry.get());
    return false;
  }
  if (fchmod(out.get(), 0755) != 0) {
    *error = "cannot make " + destination + " executable: " + strerror(errno);
    return false;
  }
  return true;
}

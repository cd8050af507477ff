/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The address a mirror redirects the download to, split into scheme, host and path. The parts
// must fit the download's fixed buffers, and "scheme://host/path" comes back whole when none of
// its parts had to be cut.

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "request/romdownload.h"

namespace {

// The download's buffers, terminating zero included.
constexpr size_t kSchemeSize = 16;
constexpr size_t kHostSize = 1024;
constexpr size_t kPathSize = 524288;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string address(reinterpret_cast<const char*>(data), size);
  const URLWrapper parts = SplitRedirect(address);
  if (parts.scheme.size() >= kSchemeSize || parts.host.size() >= kHostSize ||
      parts.path.size() >= kPathSize || !parts.query.empty()) {
    abort();
  }

  // Only one ':' (no port), followed by "//", and a '/' after the host.
  const size_t colon = address.find(':');
  if (colon == std::string::npos || address.compare(colon, 3, "://") != 0 ||
      address.find(':', colon + 1) != std::string::npos) {
    return 0;
  }
  const size_t slash = address.find('/', colon + 3);
  if (slash == std::string::npos) return 0;
  const bool whole = colon + 3 < kSchemeSize && slash - colon - 3 < kHostSize &&
                     address.size() - slash < kPathSize;
  if (whole && parts.url() != address) abort();
  return 0;
}

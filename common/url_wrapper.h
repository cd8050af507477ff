/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#pragma once

#include <string>

// A request address as the tasks and the resolver pass it around: scheme ("http://"), host, a
// third field that no request fills, and path. The transfer URL is scheme + host + path.
struct URLWrapper {
  std::string scheme;
  std::string host;
  std::string query;
  std::string path;

  URLWrapper() = default;
  URLWrapper(std::string scheme, std::string host, std::string query, std::string path);
  URLWrapper(const URLWrapper&) = default;
  URLWrapper& operator=(const URLWrapper&) = default;
  // A move takes all four fields and leaves the source empty.
  URLWrapper(URLWrapper&& other) noexcept;
  URLWrapper& operator=(URLWrapper&& other) noexcept;

  // Returns the URL handed to libcurl.
  std::string url() const { return scheme + host + path; }
};

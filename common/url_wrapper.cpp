/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "common/url_wrapper.h"

#include <utility>

URLWrapper::URLWrapper(std::string scheme, std::string host, std::string query, std::string path)
    : scheme(std::move(scheme)),
      host(std::move(host)),
      query(std::move(query)),
      path(std::move(path)) {}

URLWrapper::URLWrapper(URLWrapper&& other) noexcept {
  *this = std::move(other);
}

URLWrapper& URLWrapper::operator=(URLWrapper&& other) noexcept {
  if (this == &other) return *this;
  scheme = std::move(other.scheme);
  host = std::move(other.host);
  query = std::move(other.query);
  path = std::move(other.path);
  other.scheme.clear();
  other.host.clear();
  other.query.clear();
  other.path.clear();
  return *this;
}

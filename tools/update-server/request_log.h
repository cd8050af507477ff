/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The record of every request the server received, one JSON object per line, for tests and for
// a developer who wants to see exactly what the device sent.

#pragma once

#include <httplib.h>

#include <mutex>
#include <optional>
#include <string>

class RequestLog {
 public:
  // An empty |path| keeps no record.
  explicit RequestLog(std::string path) : path_(std::move(path)) {}

  // Appends |request|; for the update query, |query| is its deciphered text (or nothing when it
  // did not decipher) and the form fields are recorded too.
  void Append(const httplib::Request& request, const std::optional<std::string>* query);

 private:
  std::string path_;
  std::mutex lock_;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The record of every request the server received, one JSON object per line, for tests and for
// a developer who wants to see exactly what the device sent, and when: each entry carries the
// seconds since the server started ("t") and the wall-clock time ("wall").

#pragma once

#include <httplib.h>

#include <mutex>
#include <optional>
#include <string>

#include "desk_clock.h"

class RequestLog {
 public:
  // An empty |path| keeps no record; |clock| started with the server.
  RequestLog(std::string path, const DeskClock& clock) : path_(std::move(path)), clock_(clock) {}

  // Appends |request|; for the update query, |query| is its deciphered text (or nothing when it
  // did not decipher) and the form fields are recorded too.
  void Append(const httplib::Request& request, const std::optional<std::string>* query);

 private:
  std::string path_;
  const DeskClock& clock_;
  std::mutex lock_;
};

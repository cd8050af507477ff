/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The record as a stream for scripts and CI: one JSON object per line, flushed as it is written.

#pragma once

#include <stdio.h>

#include <string>

#include "record.h"

// Returns |event| as one line of JSON without its line end: {"t":..., "stage":..., "event":...,
// then "text" when a person is shown something, then the event's fields}.
std::string EventJson(const Event& event);

class JsonEventWriter : public RecordListener {
 public:
  explicit JsonEventWriter(FILE* out) : out_(out) {}
  void OnEvent(const Event& event) override;

 private:
  FILE* out_;
};

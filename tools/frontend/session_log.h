/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The front end's log: bundlerun's lines and the front end's own events, with the commands it
// sent and their acknowledgements (which the display shows only on the bar). Every line is
// stamped with the seconds since the run began ("[%12.6f] ", as the boot environment's recovery
// log stamps its lines); each run starts with one header line that says when, with what and how.

#pragma once

#include <stdio.h>

#include "record.h"

class SessionLog : public RecordListener {
 public:
  explicit SessionLog(FILE* file) : file_(file) {}
  void OnEvent(const Event& event) override;
  void OnLogLine(double t, const std::string& line) override;

 private:
  void Line(double t, const std::string& text);
  FILE* file_;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The desk tools' clock for their records: seconds since the tool started, stamped the way the
// boot environment's recovery log stamps its lines, and the wall-clock time in ISO 8601, so that
// the records of two tools can be lined up.

#pragma once

#include <chrono>
#include <string>

class DeskClock {
 public:
  // Starts counting now.
  DeskClock();

  // Returns the seconds since the clock started.
  double Seconds() const;
  // Returns the wall-clock time at which the clock started.
  const std::string& started() const { return started_; }

  // Returns the prefix of a message line written now: its stamp and the wall-clock time.
  std::string MessagePrefix() const { return Stamp(Seconds()) + WallTime() + " "; }

  // Returns the fixed-width prefix of a line written |seconds| after the start: "[%12.6f] ".
  static std::string Stamp(double seconds);
  // Returns the current wall-clock time in UTC with microseconds, "2026-11-22T10:00:00.123456Z".
  static std::string WallTime();

 private:
  std::chrono::steady_clock::time_point start_;
  std::string started_;
};

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "desk_clock.h"

#include <stdio.h>
#include <time.h>

DeskClock::DeskClock() : start_(std::chrono::steady_clock::now()), started_(WallTime()) {}

double DeskClock::Seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string DeskClock::Stamp(double seconds) {
  char stamp[32];
  snprintf(stamp, sizeof(stamp), "[%12.6f] ", seconds);
  return stamp;
}

std::string DeskClock::WallTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char date[32];
  char text[64];
  strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(text, sizeof(text), "%s.%06ldZ", date, now.tv_nsec / 1000);
  return text;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The arithmetic of the front end's record: the smoothed download speed.

#include "record.h"

#include <gtest/gtest.h>
#include <math.h>

namespace {

constexpr double kMB = 1e6;

// Feeds |meter| a file that grows at |rate| bytes per second from |*t| for |seconds|, observed
// every quarter of a second; |*bytes| is the file's size.
void Grow(SpeedMeter& meter, double* t, double* bytes, double rate, double seconds) {
  for (double end = *t + seconds; *t < end;) {
    *t += 0.25;
    *bytes += rate * 0.25;
    meter.Observe(*t, static_cast<uint64_t>(*bytes));
  }
}

TEST(RecordTest, SpeedIsAnAverageOverSecondsThatStartsAgainAfterAPauseOrARetry) {
  SpeedMeter meter;
  double t = 10;
  double bytes = 500 * kMB;  // what an earlier attempt left in the file
  EXPECT_FALSE(meter.speed());
  meter.Observe(t, static_cast<uint64_t>(bytes));
  EXPECT_FALSE(meter.speed()) << "nothing grew yet";
  // Before the first window closes, the growth since the first observation.
  Grow(meter, &t, &bytes, 2 * kMB, 0.25);
  EXPECT_NEAR(2 * kMB, *meter.speed(), 1);

  // A steady rate is the average; a step is followed with the time constant: after it, the
  // average has covered 1 - 1/e of the way.
  Grow(meter, &t, &bytes, 2 * kMB, 4.75);
  EXPECT_NEAR(2 * kMB, *meter.speed(), 1);
  Grow(meter, &t, &bytes, 5 * kMB, SpeedMeter::kTimeConstant);
  EXPECT_NEAR(5 * kMB - 3 * kMB / M_E, *meter.speed(), 1);

  // After a reset the first window gives the speed alone: neither the old average nor what the
  // file already held count.
  meter.Reset();
  EXPECT_FALSE(meter.speed());
  meter.Observe(t, static_cast<uint64_t>(bytes));
  Grow(meter, &t, &bytes, 1 * kMB, 0.5);
  EXPECT_NEAR(1 * kMB, *meter.speed(), 1);
  // A file that shrank (removed, begun again) is a new baseline, not a negative speed.
  t += 0.5;
  bytes = 0;
  meter.Observe(t, 0);
  Grow(meter, &t, &bytes, 1 * kMB, 1);
  EXPECT_NEAR(1 * kMB, *meter.speed(), 1);
}

}  // namespace

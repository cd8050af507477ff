/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The arithmetic of the front end's record: the smoothed download speed, the report's axes and
// the text that the report and the JSON stream accept.

#include <gtest/gtest.h>
#include <math.h>

#include <chrono>
#include <thread>
#include <vector>

#include "json_events.h"
#include "record.h"
#include "svg_report.h"

namespace {

using namespace std::chrono_literals;

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

TEST(RecordTest, DownloadSpeedStartsAgainAfterAPauseOrARetry) {
  const std::vector<std::vector<EventKind>> restarts = {
      {EventKind::kRetry}, {EventKind::kPaused, EventKind::kContinued}};
  for (const std::vector<EventKind>& restart : restarts) {
    SCOPED_TRACE(EventName(restart.front()));
    SessionRecord record;
    record.StartDownload(0, 0);
    std::this_thread::sleep_for(100ms);
    record.ObserveDownload(1000 * kMB);
    for (EventKind kind : restart) record.Add(kind, "");
    record.ObserveDownload(1000 * kMB);
    std::this_thread::sleep_for(100ms);
    record.ObserveDownload(1000 * kMB + 1000);
    // 1000 bytes in at least 0.1 s; the average from before the restart is gigabytes a second.
    ASSERT_TRUE(record.download().speed);
    EXPECT_LE(*record.download().speed, 10000);
    EXPECT_FALSE(record.download().eta()) << "the ROM's size is unknown";
  }
}

// One download that fails, then one that is paused and stopped while paused.
TEST(RecordTest, PauseLastsUntilTheStopAndEachDownloadHasItsOwnSpeedLine) {
  SessionRecord record;
  record.StartDownload(10 * kMB, 0);
  std::this_thread::sleep_for(100ms);
  record.ObserveDownload(1 * kMB);
  record.EndDownload("failed");
  record.StartDownload(10 * kMB, 1 * kMB);
  std::this_thread::sleep_for(100ms);
  record.ObserveDownload(2 * kMB);
  record.Add(EventKind::kPaused, "");
  std::this_thread::sleep_for(100ms);
  record.Add(EventKind::kCommand, "", {{"command", std::string("s")}});
  std::this_thread::sleep_for(100ms);
  record.Add(EventKind::kStopped, "");
  record.EndDownload("stopped");

  const Event& summary = record.events().back();
  ASSERT_EQ(EventKind::kDownload, summary.kind);
  EXPECT_GE(std::get<double>(*summary.Find("paused")), 0.2);
  int lines = 0;
  std::optional<double> before;
  for (const SpeedSample& sample : record.samples()) {
    if (sample.speed && !before) ++lines;
    before = sample.speed;
  }
  EXPECT_EQ(2, lines);
}

TEST(RecordTest, AxesHaveNiceStepsThatHoldTheirMaximum) {
  struct Case {
    double max;
    int max_intervals;
    double step;
    double top;
    int intervals;
  } cases[] = {
      {12.3, 10, 2, 14, 7},  {10, 5, 2, 10, 5},     {0.37, 5, 0.1, 0.4, 4},
      {95, 10, 10, 100, 10}, {1234, 5, 500, 1500, 3}, {7, 1, 10, 10, 1},
      {0, 5, 1, 1, 1},       {-3, 5, 1, 1, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.max);
    const AxisScale axis = NiceAxis(c.max, c.max_intervals);
    EXPECT_DOUBLE_EQ(c.step, axis.step);
    EXPECT_DOUBLE_EQ(c.top, axis.top);
    EXPECT_EQ(c.intervals, axis.intervals);
  }
  EXPECT_EQ("0.3", TickLabel(3 * 0.1, 0.1));
  EXPECT_EQ("0.05", TickLabel(0.05, 0.05));
  EXPECT_EQ("12", TickLabel(12, 2));
  EXPECT_EQ("1500", TickLabel(1500, 500));
}

// Returns |text| with each "~" made U+FFFD, the replacement character.
std::string Replaced(std::string text) {
  for (size_t at; (at = text.find('~')) != std::string::npos;) text.replace(at, 1, "\xef\xbf\xbd");
  return text;
}

TEST(RecordTest, TextIsWellFormedUtf8ThatXmlAccepts) {
  struct Case {
    std::string in;
    const char* out;  // "~" stands for U+FFFD
  } cases[] = {
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xa6 <&>",
       "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xa6 <&>"},
      // The edges of the ranges: U+0080, U+D7FF, U+E000, U+FFFD, U+10000, U+10FFFF.
      {"\xc2\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbd\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
       "\xc2\x80\xed\x9f\xbf\xee\x80\x80~\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
      // Overlong forms, surrogates, beyond U+10FFFF, bytes that begin nothing: each byte that
      // cannot go on is one replacement, and a sequence cut short is one up to where it broke.
      {"\xc0\xaf|\xc1\xbf|\xe0\x80\xaf|\xf0\x8f\xbf\xbf|\xed\xa0\x80|\xf4\x90\x80\x80|"
       "\xf5\xf7\xff\x80",
       "~~|~~|~~~|~~~~|~~~|~~~~|~~~~"},
      {"\xe2\x82x\xf0\x9f\x93", "~x~"},
      // What XML forbids goes: control characters but tab and line ends, U+FFFE, U+FFFF.
      {std::string("a\0b\x01\x1f\tc\nd\re\x7f", 13) + "\xef\xbf\xbe\xef\xbf\xbf",
       "ab\tc\nd\re\x7f"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    EXPECT_EQ(Replaced(c.out), CleanText(c.in));
  }
  EXPECT_EQ(Replaced("&lt;a href=&apos;x&apos;&gt;&amp;&quot; ~ "),
            XmlText("<a href='x'>&\"\t\xff\n"));
  const Event event = {0.5, "stage2", EventKind::kNote, "\xff", {{"url", std::string("\xc0/")}}};
  EXPECT_EQ(Replaced(R"({"t":0.5,"stage":"stage2","event":"note","text":"~","url":"~/"})"),
            EventJson(event));
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "svg_report.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <math.h>
#include <string.h>

#include <algorithm>

namespace {

using android::base::StringPrintf;

// The page, in pixels: the time axis runs from kLeft to kWidth - kRight.
constexpr double kWidth = 1000;
constexpr double kLeft = 90;
constexpr double kRight = 30;
constexpr double kBandTop = 100;  // the row of the update's parts, with two rows of labels above
constexpr double kBandHeight = 26;
constexpr double kChartTop = 190;  // the speed chart, with kMarkRows rows of labels above
constexpr double kChartHeight = 220;
constexpr double kLabelRowHeight = 13;
constexpr int kBandLabelRows = 2;
constexpr int kMarkRows = 3;
constexpr double kLineHeight = 18;  // lines of words below the chart
constexpr double kCharWidth = 6.6;  // of 12-pixel sans-serif text, for fitting labels
constexpr size_t kMaxNotes = 8;

// How the chart marks an event on the time axis.
struct Mark {
  EventKind kind;
  const char* label;
  const char* colour;
};
constexpr Mark kMarks[] = {
    {EventKind::kRetry, "retry", "#c0392b"},  {EventKind::kRedirect, "redirect", "#8e44ad"},
    {EventKind::kPaused, "pause", "#d35400"}, {EventKind::kContinued, "continue", "#1e8449"},
    {EventKind::kStopped, "stop", "#17202a"}, {EventKind::kRedownload, "download again", "#b7950b"},
};

// Band colours of a part of the update: fill and outline.
struct Look {
  const char* fill;
  const char* stroke;
};
constexpr Look kNeutral = {"#e5e8eb", "#8a949e"};
constexpr Look kGood = {"#d4edda", "#4f9a5f"};
constexpr Look kBad = {"#f6cdc8", "#c0392b"};
constexpr Look kPaused = {"#fdebd0", "#fdebd0"};
constexpr char kSpeedColour[] = "#1f77b4";
constexpr char kDoneColour[] = "#2e7d32";
constexpr char kFailedColour[] = "#c0392b";

// Returns field |key| of |event| as text, or "".
std::string Text(const Event& event, const char* key) {
  const FieldValue* value = event.Find(key);
  if (value == nullptr) return "";
  if (std::holds_alternative<std::string>(*value)) return std::get<std::string>(*value);
  if (std::holds_alternative<int64_t>(*value)) return std::to_string(std::get<int64_t>(*value));
  return "";
}

// Returns whether |event| carries field |key| with the value false.
bool IsFalse(const Event& event, const char* key) {
  const FieldValue* value = event.Find(key);
  return value && std::holds_alternative<bool>(*value) && !std::get<bool>(*value);
}

// Returns whether |event| says that its part of the update went wrong, and in |known| whether it
// says anything about it at all.
bool Failed(const Event& event, bool* known) {
  switch (event.kind) {
    case EventKind::kTask:
    case EventKind::kVerdict:
    case EventKind::kInstall:
      *known = true;
      return IsFalse(event, "ok");
    case EventKind::kDownload:
      *known = true;
      return Text(event, "outcome") != "complete";
    default:
      return false;
  }
}

// Returns the short name of a part: its title up to a colon ("Stage two").
std::string ShortTitle(const std::string& title) {
  return title.substr(0, title.find(':'));
}

// Returns a speed unit that suits |max| bytes per second: its size and its name.
std::pair<double, const char*> SpeedUnit(double max) {
  if (max >= 1024.0 * 1024 * 1024) return {1024.0 * 1024 * 1024, "GiB/s"};
  if (max >= 1024.0 * 1024) return {1024.0 * 1024, "MiB/s"};
  if (max >= 1024.0) return {1024.0, "KiB/s"};
  return {1, "B/s"};
}

// Places labels in rows above a line of things on the time axis: each label goes into the first
// row where it runs into no label before it.
class LabelRows {
 public:
  explicit LabelRows(int rows) : ends_(rows, -1e9) {}
  // Returns the row of a label from |x| that is |chars| characters long.
  int Place(double x, size_t chars) {
    auto row = std::find_if(ends_.begin(), ends_.end(), [&](double end) { return end < x; });
    if (row == ends_.end()) row = std::min_element(ends_.begin(), ends_.end());
    *row = x + chars * kCharWidth + 4;
    return static_cast<int>(row - ends_.begin());
  }

 private:
  std::vector<double> ends_;
};

// Builds the document piece by piece. The time axis spans the run: its ticks are nice steps,
// its right end is the run's end.
class Picture {
 public:
  explicit Picture(double end) : end_(std::max(end, 0.001)), time_(NiceAxis(end_, 10)) {}

  double X(double t) const { return kLeft + std::min(t, end_) / end_ * (kWidth - kLeft - kRight); }
  // The ticks of the time axis: multiples of a nice step up to the end.
  std::vector<double> TimeTicks() const {
    std::vector<double> ticks;
    for (int i = 0; i * time_.step <= end_ * (1 + 1e-9); ++i) ticks.push_back(i * time_.step);
    return ticks;
  }
  double time_step() const { return time_.step; }

  void Add(const std::string& element) { body_ += element + "\n"; }
  void Text(double x, double y, const std::string& text, const char* attributes = "") {
    Add(StringPrintf("<text x=\"%.1f\" y=\"%.1f\" %s>%s</text>", x, y, attributes,
                     XmlText(text).c_str()));
  }
  std::string Document(double height) const {
    return StringPrintf(
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
               "viewBox=\"0 0 %.0f %.0f\" font-family=\"sans-serif\" font-size=\"12\">\n"
               "<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n",
               kWidth, height, kWidth, height) +
           body_ + "</svg>\n";
  }

 private:
  double end_;
  AxisScale time_;
  std::string body_;
};

// Draws the title: how the run ended, when it began and what it fetched.
void DrawTitle(Picture& picture, const SessionRecord& record) {
  std::string outcome = "bundlerun-ui: the run did not end";
  std::string started;
  std::string rom = "no ROM offered";
  for (const Event& event : record.events()) {
    if (event.kind == EventKind::kResult) {
      outcome = StringPrintf("bundlerun-ui: %s (exit status %s) after %.1f s", event.text.c_str(),
                             Text(event, "status").c_str(), event.t);
    } else if (event.kind == EventKind::kStart) {
      started = "started " + Text(event, "wall") + " by bundlerun-ui " + Text(event, "version");
    } else if (event.kind == EventKind::kRom) {
      rom = "ROM " + Text(event, "version") + " for a device on " + Text(event, "current");
    } else if (event.kind == EventKind::kMirror && rom.find(", from ") == std::string::npos) {
      // A download again comes from the same address.
      rom += ", from " + Text(event, "url");
    }
  }
  picture.Text(kLeft, 28, outcome, "font-size=\"17\" font-weight=\"bold\"");
  picture.Text(kLeft, 50, started, "fill=\"#555555\"");
  picture.Text(kLeft, 68, rom, "fill=\"#555555\"");
}

// Draws the parts of the update as bands on the time axis, coloured by outcome, and each task's
// outcome as a dot where it arrived.
void DrawStages(Picture& picture, const std::vector<Event>& events, double end) {
  LabelRows above(kBandLabelRows);
  for (size_t i = 0; i < events.size(); ++i) {
    if (events[i].kind != EventKind::kBegin) continue;
    double until = end;
    bool known = false;
    bool failed = false;
    for (size_t j = i + 1; j < events.size(); ++j) {
      if (events[j].kind == EventKind::kBegin) {
        until = events[j].t;
        break;
      }
      failed = Failed(events[j], &known) || failed;
    }
    const Look look = failed ? kBad : known ? kGood : kNeutral;
    const double x = picture.X(events[i].t);
    const double width = std::max(1.0, picture.X(until) - x);
    const std::string title = Text(events[i], "title");
    picture.Add(
        StringPrintf("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" "
                     "fill=\"%s\" stroke=\"%s\"><title>%s (%.2f s to %.2f s)</title>"
                     "</rect>",
                     x, kBandTop, width, kBandHeight, look.fill, look.stroke,
                     XmlText(title).c_str(), events[i].t, until));
    // A part too short for its name is named above the row.
    const std::string label = ShortTitle(title);
    if (label.size() * kCharWidth + 8 < width) {
      picture.Text(x + width / 2, kBandTop + kBandHeight / 2 + 4, label, "text-anchor=\"middle\"");
    } else {
      const int row = above.Place(x, label.size());
      // A label near the right edge ends at the edge.
      picture.Text(std::min(x, kWidth - 4 - label.size() * kCharWidth),
                   kBandTop - 5 - (kBandLabelRows - 1 - row) * kLabelRowHeight, label,
                   "fill=\"#555555\" font-size=\"11\"");
    }
  }
  for (const Event& event : events) {
    if (event.kind != EventKind::kTask) continue;
    const bool ok = !IsFalse(event, "ok");
    picture.Add(
        StringPrintf("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"4.5\" fill=\"%s\" "
                     "stroke=\"#ffffff\"><title>%s</title></circle>",
                     picture.X(event.t), kBandTop + kBandHeight, ok ? kDoneColour : kFailedColour,
                     XmlText(event.text).c_str()));
  }
  picture.Text(kLeft - 8, kBandTop + kBandHeight / 2 + 4, "parts", "text-anchor=\"end\"");
}

// Draws the speed chart: its axes, the time spent paused, the smoothed speed, and a mark for
// each retry, redirect, pause, continue and stop.
void DrawSpeed(Picture& picture, const SessionRecord& record) {
  const double bottom = kChartTop + kChartHeight;
  double max = 0;
  for (const SpeedSample& sample : record.samples()) {
    if (sample.speed) max = std::max(max, *sample.speed);
  }
  const std::pair<double, const char*> unit = SpeedUnit(max);
  const AxisScale speed = NiceAxis(max / unit.first, 5);
  auto y = [&](double bytes_per_second) {
    return bottom - std::min(bytes_per_second / unit.first / speed.top, 1.0) * kChartHeight;
  };

  // Axes, grid and tick labels.
  for (double tick : picture.TimeTicks()) {
    const double x = picture.X(tick);
    picture.Add(
        StringPrintf("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" "
                     "stroke=\"#eeeeee\"/>",
                     x, kBandTop, x, bottom));
    picture.Text(x, bottom + 16, TickLabel(tick, picture.time_step()), "text-anchor=\"middle\"");
  }
  for (int i = 0; i <= speed.intervals; ++i) {
    const double at = bottom - i * kChartHeight / speed.intervals;
    picture.Add(
        StringPrintf("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" "
                     "stroke=\"#eeeeee\"/>",
                     kLeft, at, kWidth - kRight, at));
    picture.Text(kLeft - 8, at + 4, TickLabel(i * speed.step, speed.step), "text-anchor=\"end\"");
  }
  picture.Add(
      StringPrintf("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" "
                   "fill=\"none\" stroke=\"#888888\"/>",
                   kLeft, kChartTop, kWidth - kLeft - kRight, kChartHeight));
  picture.Text(kLeft - 8, kChartTop - 12, unit.second, "text-anchor=\"end\"");
  picture.Text((kLeft + kWidth - kRight) / 2, bottom + 32, "seconds since the run began",
               "text-anchor=\"middle\" fill=\"#555555\"");

  // The time spent paused, from each acknowledged pause to the continue or the end.
  const std::vector<Event>& events = record.events();
  for (size_t i = 0; i < events.size(); ++i) {
    if (events[i].kind != EventKind::kPaused) continue;
    double until = events.back().t;
    for (size_t j = i + 1; j < events.size(); ++j) {
      if (events[j].kind == EventKind::kContinued || events[j].kind == EventKind::kStopped ||
          events[j].kind == EventKind::kDownload) {
        until = events[j].t;
        break;
      }
    }
    const double x = picture.X(events[i].t);
    picture.Add(StringPrintf(
        "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"/>", x,
        kChartTop + 0.5, std::max(1.0, picture.X(until) - x), kChartHeight - 1, kPaused.fill));
  }

  // The smoothed speed, one line for each stretch between resets.
  std::vector<std::string> lines(1);
  for (const SpeedSample& sample : record.samples()) {
    if (!sample.speed) {
      if (!lines.back().empty()) lines.emplace_back();
      continue;
    }
    lines.back() += StringPrintf("%.1f,%.1f ", picture.X(sample.t), y(*sample.speed));
  }
  for (const std::string& points : lines) {
    if (points.empty()) continue;
    picture.Add(
        StringPrintf("<polyline fill=\"none\" stroke=\"%s\" stroke-width=\"2\" "
                     "stroke-linejoin=\"round\" points=\"%s\"/>",
                     kSpeedColour, points.c_str()));
  }
  if (record.samples().empty()) {
    picture.Text((kLeft + kWidth - kRight) / 2, kChartTop + kChartHeight / 2,
                 "no speed measured in this run", "text-anchor=\"middle\" fill=\"#888888\"");
  }

  // A mark for each event of kMarks, its label above the chart.
  LabelRows above(kMarkRows);
  for (const Event& event : events) {
    const Mark* mark = std::find_if(std::begin(kMarks), std::end(kMarks),
                                    [&](const Mark& m) { return m.kind == event.kind; });
    if (mark == std::end(kMarks)) continue;
    const double x = picture.X(event.t);
    const double label_y = kChartTop - 6 - above.Place(x, strlen(mark->label)) * kLabelRowHeight;
    picture.Add(StringPrintf(
        "<g><title>%s</title>"
        "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" "
        "stroke-width=\"1.5\" stroke-dasharray=\"4 3\"/>",
        XmlText(std::string(EventName(event.kind)) + " at " + StringPrintf("%.3f s", event.t) +
                (event.text.empty() ? "" : ": " + event.text))
            .c_str(),
        x, label_y + 2, x, bottom, mark->colour));
    picture.Text(x + 2, label_y, mark->label,
                 StringPrintf("fill=\"%s\" font-size=\"11\"", mark->colour).c_str());
    picture.Add("</g>");
  }
}

// Draws the key to the picture's colours in one row at |y|.
void DrawKey(Picture& picture, double y) {
  double x = kLeft;
  auto entry = [&](const std::string& swatch, const std::string& text) {
    picture.Add(swatch);
    picture.Text(x + 20, y + 4, text, "fill=\"#555555\" font-size=\"11\"");
    x += 20 + text.size() * 6 + 18;
  };
  auto box = [&](Look look) {
    return StringPrintf(
        "<rect x=\"%.1f\" y=\"%.1f\" width=\"14\" height=\"10\" fill=\"%s\" "
        "stroke=\"%s\"/>",
        x, y - 5, look.fill, look.stroke);
  };
  auto dot = [&](const char* colour) {
    return StringPrintf("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"4.5\" fill=\"%s\"/>", x + 7, y,
                        colour);
  };
  entry(StringPrintf("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" "
                     "stroke-width=\"2\"/>",
                     x, y, x + 14, y, kSpeedColour),
        "download speed, averaged over " + TickLabel(SpeedMeter::kTimeConstant, 1) + " s");
  entry(box(kPaused), "paused");
  entry(box(kGood), "part ended well");
  entry(box(kBad), "part failed");
  entry(box(kNeutral), "part without an outcome");
  entry(dot(kDoneColour), "task done");
  entry(dot(kFailedColour), "task failed");
}

// Draws in words what the picture cannot show: the tasks, the download's totals, the integrity
// verdict, the install and what the front end noted, each after its time. Returns the height
// used.
double DrawWords(Picture& picture, const std::vector<Event>& events, double top) {
  struct Line {
    double t;
    std::string text;
    bool failed;
  };
  std::vector<Line> lines;
  std::string last_installer_line;
  size_t notes = 0;
  for (const Event& event : events) {
    bool known = false;
    const bool failed = Failed(event, &known);
    const std::string said = event.stage + ": " + event.text;
    switch (event.kind) {
      case EventKind::kTask:
      case EventKind::kDownload:
      case EventKind::kVerdict:
      case EventKind::kRetry:
      case EventKind::kRedirect:
        if (!event.text.empty()) lines.push_back({event.t, said, failed});
        break;
      case EventKind::kInstaller:
        last_installer_line = event.text;
        break;
      case EventKind::kInstall:
        lines.push_back({event.t,
                         last_installer_line.empty() ? said
                                                     : said + " (the installer's last line: \"" +
                                                           last_installer_line + "\")",
                         failed});
        break;
      case EventKind::kNote:
        if (notes++ < kMaxNotes) lines.push_back({event.t, said, false});
        break;
      default:
        break;
    }
  }
  double y = top;
  for (const Line& line : lines) {
    const std::string colour = line.failed ? kFailedColour : "#222222";
    picture.Text(kLeft - 10, y, StringPrintf("%.3f s", line.t),
                 ("text-anchor=\"end\" fill=\"" + colour + "\"").c_str());
    picture.Text(kLeft, y, line.text, ("fill=\"" + colour + "\"").c_str());
    y += kLineHeight;
  }
  return y - top;
}

}  // namespace

AxisScale NiceAxis(double max, int max_intervals) {
  if (!(max > 0) || max_intervals < 1) return {1, 1, 1};
  const double raw = max / max_intervals;
  const double magnitude = pow(10, floor(log10(raw)));
  double step = 10 * magnitude;
  for (double multiple : {1.0, 2.0, 5.0}) {
    // A hair of tolerance, so that 10 / 5 is a step of 2 and not of 5.
    if (multiple * magnitude >= raw * (1 - 1e-9)) {
      step = multiple * magnitude;
      break;
    }
  }
  const int intervals = std::max(1, static_cast<int>(ceil(max / step - 1e-9)));
  return {step, intervals * step, intervals};
}

std::string TickLabel(double value, double step) {
  const int decimals = step >= 1 ? 0 : static_cast<int>(ceil(-log10(step) - 1e-9));
  return StringPrintf("%.*f", decimals, value);
}

std::string XmlText(const std::string& text) {
  std::string out;
  for (const char c : CleanText(text)) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '\t':
      case '\n':
      case '\r':
      case '\x7f':
        out += ' ';
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string SvgReport(const SessionRecord& record) {
  const std::vector<Event>& events = record.events();
  const double end = events.empty() ? 0 : events.back().t;
  Picture picture(end);
  DrawTitle(picture, record);
  DrawStages(picture, events, end);
  DrawSpeed(picture, record);
  DrawKey(picture, kChartTop + kChartHeight + 58);
  const double words_top = kChartTop + kChartHeight + 92;
  const double height = words_top + DrawWords(picture, events, words_top) + 10;
  return picture.Document(height);
}

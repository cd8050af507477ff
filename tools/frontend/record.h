/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The one record of an update session: every event with its time, the download as it stands and
// its speed over time. The display, the log, the JSON stream and the report all read it, so they
// never disagree.

#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "desk_clock.h"

// What happened. Adding a kind: a row here, its name in record.cpp, a mark in svg_report.cpp
// when it belongs on the report's time axis, and a row in the README's event list.
enum class EventKind {
  kStart,       // the run began: version, the bundlerun it runs, its arguments
  kBegin,       // a part of the update began: stage one, the ROM, stage two, ...
  kTask,        // a task of bundlerun reported its outcome on the status channel
  kRom,         // the offered ROM, as the first stage laid it out
  kMirror,      // the mirror and package address chosen
  kProgress,    // the download as it stands (at most kProgressInterval apart)
  kCommand,     // a command sent to bundlerun: p, c or s
  kPaused,      // bundlerun acknowledged a pause
  kContinued,   // bundlerun acknowledged a continue
  kStopped,     // bundlerun stopped the download
  kRetry,       // a transfer failed and bundlerun tries again
  kRedirect,    // a transfer was redirected
  kDownload,    // the download ended: its totals
  kVerdict,     // the package's digest against the ROM's md5
  kRedownload,  // the package did not match: it is removed and downloaded again
  kInstaller,   // a line the installer printed
  kInstall,     // the installer's outcome
  kNote,        // anything else the front end says
  kResult,      // the run ended: exit status and totals
};

// Returns the name of |kind| in the JSON stream ("retry").
const char* EventName(EventKind kind);

using FieldValue =
    std::variant<std::nullptr_t, bool, int64_t, double, std::string, std::vector<std::string>>;
struct Field {
  std::string key;
  FieldValue value;
};

struct Event {
  double t = 0;       // seconds since the run began
  std::string stage;  // the part of the update it belongs to ("stage2")
  EventKind kind = EventKind::kNote;
  std::string text;  // what a person reads, one or more lines; empty: nothing to show
  std::vector<Field> fields;
  // Returns the value of field |key|, or nullptr.
  const FieldValue* Find(const std::string& key) const;
};

// The download speed, smoothed: an exponential moving average of the package file's growth over
// windows of at least kWindow seconds, with a time constant of kTimeConstant seconds.
class SpeedMeter {
 public:
  static constexpr double kWindow = 0.5;
  static constexpr double kTimeConstant = 3.0;

  // Takes the file's size |bytes| at |t|. Returns true when a window closed and the average took
  // a new sample.
  bool Observe(double t, uint64_t bytes);
  // Forgets the average, after a pause, a continue, a retry or a redirect: the next window
  // starts at the next observation.
  void Reset();
  // The smoothed speed in bytes per second. Before the first window closes, the growth since the
  // first observation; nothing when there was none.
  std::optional<double> speed() const;

 private:
  std::optional<double> average_;
  std::optional<double> provisional_;
  bool started_ = false;
  double window_t_ = 0;
  uint64_t window_bytes_ = 0;
  double first_t_ = 0;
  uint64_t first_bytes_ = 0;
};

// The download as the front end knows it from the status channel and the package file.
struct DownloadState {
  bool active = false;  // stage two runs
  double began = 0;     // when stage two began
  double elapsed = 0;   // seconds since then
  int percent = 0;
  uint64_t bytes = 0;           // the package file's size
  uint64_t held = 0;            // what it held when stage two began
  uint64_t total = 0;           // the ROM's size
  std::optional<double> speed;  // smoothed bytes per second; none while paused
  int retries = 0;
  int redirects = 0;
  int pauses = 0;
  double paused_seconds = 0;           // time spent paused, acknowledged pause to continue or end
  std::optional<double> paused_since;  // when the pause under way began; none without one
  std::string state = "downloading";   // or "paused", "stopping", "stopped", "complete", "failed"
  // Returns the seconds left at the current speed, or nothing when unknown (no speed, or no
  // size of the ROM) or paused.
  std::optional<double> eta() const;
  // Returns the bytes received in this download: what the package file grew by.
  uint64_t received() const { return bytes >= held ? bytes - held : 0; }
  // Returns the average speed over the time not paused, or nothing before any time passed.
  std::optional<double> average() const;
};

// One point of the download's speed over time; nothing when the average was reset.
struct SpeedSample {
  double t;
  std::optional<double> speed;
};

// Told of everything the record learns, as it learns it.
class RecordListener {
 public:
  virtual ~RecordListener() = default;
  virtual void OnEvent(const Event& event) = 0;
  // The download changed or time passed (often: the live bar reads this).
  virtual void OnProgress(const DownloadState&) {}
  // A line bundlerun wrote on standard output or standard error.
  virtual void OnLogLine(double, const std::string&) {}
};

class SessionRecord {
 public:
  // Progress events come at most this many seconds apart.
  static constexpr double kProgressInterval = 0.5;

  const DeskClock& clock() const { return clock_; }
  double Now() const { return clock_.Seconds(); }
  void AddListener(RecordListener* listener) { listeners_.push_back(listener); }

  // Records a part of the update beginning; later events belong to |stage|.
  void Begin(const std::string& stage, const std::string& title);
  // Records an event of the current part and tells the listeners; returns it.
  const Event& Add(EventKind kind, std::string text, std::vector<Field> fields = {});
  // Passes a line of bundlerun's output on to the listeners.
  void LogLine(const std::string& line);

  // Starts the download's state: the ROM's size and what the package file holds.
  void StartDownload(uint64_t total, uint64_t held);
  // Takes a percent line of the status channel.
  void SetPercent(int percent) { download_.percent = percent; }
  // Takes the package file's size now; records a progress event when one is due.
  void ObserveDownload(uint64_t bytes);
  // Ends the download with its |outcome| ("complete", "stopped", "failed") and records its
  // totals with the summary line |text|.
  void EndDownload(const std::string& outcome);

  const std::vector<Event>& events() const { return events_; }
  const std::vector<SpeedSample>& samples() const { return samples_; }
  const DownloadState& download() const { return download_; }

 private:
  // Brings the download's state up to |event|.
  void Apply(const Event& event);
  // Adds the pause under way, if any, to the time paused: it ended at |t|.
  void EndPause(double t);
  // Records a progress event of the download as it stands.
  void AddProgress();
  // Adds a point at |t| to the speed line of the current stretch (between restarts and pauses).
  void AddSample(double t);

  DeskClock clock_;
  std::vector<RecordListener*> listeners_;
  std::string stage_ = "ui";
  std::vector<Event> events_;
  std::vector<SpeedSample> samples_;
  DownloadState download_;
  SpeedMeter meter_;
  std::optional<double> stretch_start_;  // when the speed line's current stretch began
  std::optional<double> last_progress_;
};

// Returns "m:ss" for |seconds| (whole seconds, rounded down).
std::string Duration(double seconds);

// Returns |bytes| in human units, such as "256.0 MiB".
std::string HumanBytes(uint64_t bytes);

// Returns |text| as text that XML 1.0 and JSON both accept, for the report and the JSON stream:
// well-formed UTF-8, each ill-formed sequence (its longest start that could begin a character)
// replaced by U+FFFD, and the characters XML forbids left out: control characters other than
// tab, line feed and carriage return, U+FFFE and U+FFFF.
std::string CleanText(const std::string& text);

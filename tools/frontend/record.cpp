/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "record.h"

#include <android-base/stringprintf.h>
#include <math.h>

#include <iterator>

namespace {

using android::base::StringPrintf;

// The JSON stream's name of each kind, in the order of EventKind.
constexpr const char* kEventNames[] = {
    "start",      "begin",     "task",    "rom",   "mirror",   "progress", "command",
    "paused",     "continued", "stopped", "retry", "redirect", "download", "verdict",
    "redownload", "installer", "install", "note",  "result",
};
static_assert(std::size(kEventNames) == static_cast<size_t>(EventKind::kResult) + 1,
              "every event kind has a name");

// Returns "1 retry" or "2 retries".
std::string Count(int n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

const char* EventName(EventKind kind) {
  return kEventNames[static_cast<size_t>(kind)];
}

const FieldValue* Event::Find(const std::string& key) const {
  for (const Field& field : fields) {
    if (field.key == key) return &field.value;
  }
  return nullptr;
}

bool SpeedMeter::Observe(double t, uint64_t bytes) {
  if (!started_ || bytes < window_bytes_) {
    // The first observation, or a file that shrank: a new baseline.
    started_ = true;
    window_t_ = first_t_ = t;
    window_bytes_ = first_bytes_ = bytes;
    return false;
  }
  const double span = t - window_t_;
  if (span < kWindow) {
    if (!average_ && bytes > first_bytes_ && t > first_t_) {
      provisional_ = static_cast<double>(bytes - first_bytes_) / (t - first_t_);
    }
    return false;
  }
  const double rate = static_cast<double>(bytes - window_bytes_) / span;
  // The weight of a window grows with its length, so irregular windows average alike.
  const double weight = 1 - exp(-span / kTimeConstant);
  average_ = average_ ? *average_ + weight * (rate - *average_) : rate;
  window_t_ = t;
  window_bytes_ = bytes;
  return true;
}

void SpeedMeter::Reset() {
  average_.reset();
  provisional_.reset();
  started_ = false;
}

std::optional<double> SpeedMeter::speed() const {
  return average_ ? average_ : provisional_;
}

std::optional<double> DownloadState::eta() const {
  if (state == "complete") return 0.0;
  if (total == 0 || state != "downloading" || !speed || *speed <= 0) return std::nullopt;
  return bytes >= total ? 0.0 : static_cast<double>(total - bytes) / *speed;
}

std::optional<double> DownloadState::average() const {
  double running = elapsed - paused_seconds;
  if (paused_since) running -= began + elapsed - *paused_since;
  if (running <= 0 || bytes < held) return std::nullopt;
  return static_cast<double>(received()) / running;
}

void SessionRecord::Begin(const std::string& stage, const std::string& title) {
  stage_ = stage;
  Add(EventKind::kBegin, "", {{"title", title}});
}

const Event& SessionRecord::Add(EventKind kind, std::string text, std::vector<Field> fields) {
  events_.push_back({Now(), stage_, kind, std::move(text), std::move(fields)});
  Apply(events_.back());
  for (RecordListener* listener : listeners_) listener->OnEvent(events_.back());
  return events_.back();
}

void SessionRecord::LogLine(const std::string& line) {
  const double t = Now();
  for (RecordListener* listener : listeners_) listener->OnLogLine(t, line);
}

void SessionRecord::Apply(const Event& event) {
  DownloadState& d = download_;
  const FieldValue* command = event.Find("command");
  const FieldValue* name = event.Find("name");
  const FieldValue* ok = event.Find("ok");
  bool restart = false;
  switch (event.kind) {
    case EventKind::kCommand:
      if (command && std::get<std::string>(*command) == "s") d.state = "stopping";
      break;
    case EventKind::kPaused:
      d.state = "paused";
      ++d.pauses;
      d.paused_since = event.t;
      restart = true;
      break;
    case EventKind::kContinued:
    case EventKind::kStopped:
      // A stop sent while paused leaves the transfer paused until bundlerun has stopped it.
      EndPause(event.t);
      d.state = event.kind == EventKind::kStopped ? "stopped" : "downloading";
      restart = true;
      break;
    case EventKind::kRetry:
      ++d.retries;
      restart = true;
      break;
    case EventKind::kRedirect:
      ++d.redirects;
      restart = true;
      break;
    case EventKind::kTask:
      // A download that failed is ended by EndDownload, with its outcome.
      if (name && std::get<std::string>(*name) == "download" && ok && std::get<bool>(*ok)) {
        d.state = "complete";
        d.percent = 100;
      }
      break;
    default:
      break;
  }
  // A restart or a pause says nothing of the speed after it: the average starts again, and
  // the picture of the speed has a gap there.
  if (restart && d.active) {
    AddSample(event.t);
    meter_.Reset();
    d.speed.reset();
    stretch_start_.reset();
    samples_.push_back({event.t, std::nullopt});
  }
}

void SessionRecord::EndPause(double t) {
  DownloadState& d = download_;
  if (d.paused_since) d.paused_seconds += t - *d.paused_since;
  d.paused_since.reset();
}

void SessionRecord::AddSample(double t) {
  const std::optional<double> speed = meter_.speed();
  if (!speed || !stretch_start_) return;
  // The first value of a stretch is the speed over all of it so far.
  if (samples_.empty() || !samples_.back().speed) samples_.push_back({*stretch_start_, speed});
  if (t > samples_.back().t) samples_.push_back({t, speed});
}

void SessionRecord::StartDownload(uint64_t total, uint64_t held) {
  download_ = DownloadState();
  download_.active = true;
  download_.began = Now();
  download_.total = total;
  download_.bytes = download_.held = held;
  meter_.Reset();
  meter_.Observe(download_.began, held);
  stretch_start_ = download_.began;
}

void SessionRecord::ObserveDownload(uint64_t bytes) {
  DownloadState& d = download_;
  const double t = Now();
  d.bytes = bytes;
  d.elapsed = t - d.began;
  if (!d.paused_since &&
      (d.state == "downloading" || d.state == "stopping" || d.state == "complete")) {
    if (!stretch_start_) stretch_start_ = t;
    if (meter_.Observe(t, bytes)) AddSample(t);
    d.speed = meter_.speed();
  } else {
    d.speed.reset();
  }
  if (!last_progress_ || t - *last_progress_ >= kProgressInterval) AddProgress();
  for (RecordListener* listener : listeners_) listener->OnProgress(d);
}

void SessionRecord::AddProgress() {
  const DownloadState& d = download_;
  const std::optional<double> eta = d.eta();
  last_progress_ = Now();
  Add(EventKind::kProgress, "",
      {{"percent", int64_t{d.percent}},
       {"bytes", static_cast<int64_t>(d.bytes)},
       {"total", static_cast<int64_t>(d.total)},
       {"speed", d.speed ? FieldValue(static_cast<int64_t>(*d.speed)) : nullptr},
       {"eta", eta ? FieldValue(*eta) : nullptr},
       {"elapsed", d.elapsed},
       {"state", d.state}});
}

void SessionRecord::EndDownload(const std::string& outcome) {
  DownloadState& d = download_;
  const double t = Now();
  d.elapsed = t - d.began;
  AddSample(t);
  // The next download's speed is a line of its own.
  if (!samples_.empty() && samples_.back().speed) samples_.push_back({t, std::nullopt});
  stretch_start_.reset();
  EndPause(t);
  if (d.state != "complete" && d.state != "stopped") d.state = outcome;
  AddProgress();
  d.active = false;
  const std::optional<double> average = d.average();
  const uint64_t received = d.received();
  std::string text =
      StringPrintf("%s %s in %.1f s", outcome == "complete" ? "downloaded" : "received",
                   HumanBytes(received).c_str(), d.elapsed);
  if (average) text += " at " + HumanBytes(static_cast<uint64_t>(*average)) + "/s on average";
  text += "; " + Count(d.retries, "retry", "retries") + ", " +
          Count(d.redirects, "redirect", "redirects") + ", " + Count(d.pauses, "pause", "pauses");
  Add(EventKind::kDownload, text,
      {{"outcome", outcome},
       {"bytes", static_cast<int64_t>(received)},
       {"size", static_cast<int64_t>(d.bytes)},
       {"elapsed", d.elapsed},
       {"paused", d.paused_seconds},
       {"speed", average ? FieldValue(static_cast<int64_t>(*average)) : nullptr},
       {"retries", int64_t{d.retries}},
       {"redirects", int64_t{d.redirects}},
       {"pauses", int64_t{d.pauses}}});
}

std::string Duration(double seconds) {
  const auto whole = static_cast<unsigned long long>(seconds > 0 ? seconds : 0);
  return StringPrintf("%llu:%02llu", whole / 60, whole % 60);
}

std::string HumanBytes(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  return unit == 0 ? StringPrintf("%llu B", static_cast<unsigned long long>(bytes))
                   : StringPrintf("%.1f %s", value, kUnits[unit]);
}

std::string CleanText(const std::string& text) {
  static constexpr char kReplacement[] = "\xef\xbf\xbd";  // U+FFFD
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
      if (lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r') out += text[i];
      ++i;
      continue;
    }
    // The length of the sequence that |lead| begins (0: none), and the range of its second
    // byte, which leaves out overlong forms, surrogates and code points above U+10FFFF.
    size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (lead >= 0xc2 && lead <= 0xdf) {
      length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
      length = 3;
      if (lead == 0xe0) low = 0xa0;
      if (lead == 0xed) high = 0x9f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
      length = 4;
      if (lead == 0xf0) low = 0x90;
      if (lead == 0xf4) high = 0x8f;
    }
    size_t n = 1;
    for (; n < length && i + n < text.size(); ++n) {
      if (byte(n) < (n == 1 ? low : 0x80) || byte(n) > (n == 1 ? high : 0xbf)) break;
    }
    if (n < length || length == 0) {
      out += kReplacement;
      i += n;
      continue;
    }
    const bool not_a_character = lead == 0xef && byte(1) == 0xbf && byte(2) >= 0xbe;
    if (!not_a_character) out.append(text, i, length);
    i += length;
  }
  return out;
}

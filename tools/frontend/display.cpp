/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "display.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

using android::base::StringPrintf;

constexpr size_t kBarWidth = 30;
constexpr size_t kMinBarWidth = 8;
constexpr size_t kDefaultColumns = 80;

// Returns the width of the terminal on standard output.
size_t TerminalColumns() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return kDefaultColumns;
}

// Returns the keys that act on the download in its |state|.
const char* KeyHints(const std::string& state) {
  if (state == "downloading") return "[p]ause [s]top";
  if (state == "paused") return "[c]ontinue [s]top";
  return "";
}

// How far the progress line is shortened to fit: each level shortens the line of the one before
// by one step. The percent, the state and the keys stay at every level.
enum Level {
  kEverything,
  kNoCounts,   // the retry and redirect counts go (each is also an event line above)
  kNoTotal,    // the total size goes, the size stays
  kNoBar,      // the bar goes, once it is as short as it can be
  kOneSpace,   // the parts stand one space apart instead of two
  kNoEta,      // the time left goes
  kNoElapsed,  // the elapsed time goes
  kNoSpeed,    // the speed goes
  kNoSize,     // the size goes
  kLevels,
};

// Returns the progress line for a terminal of |columns| columns: the first level of Level that
// fits, with the bar as long as the room allows from kMinBarWidth to kBarWidth. At 80 columns a
// download shows its percent, size, speed, elapsed time, time left, state and keys (kOneSpace);
// on a terminal too narrow for the percent, the state and the keys, the line is cut.
std::string ProgressLine(const DownloadState& d, size_t columns) {
  std::string counts;
  if (d.retries) counts += StringPrintf("retries %d", d.retries);
  if (d.redirects)
    counts += std::string(counts.empty() ? "" : ", ") + "redirects " + std::to_string(d.redirects);
  const std::optional<double> eta = d.eta();
  const std::string bytes = HumanBytes(d.bytes);
  const size_t room = columns > 1 ? columns - 1 : 0;  // the last column would wrap the line
  std::string line;
  for (int level = kEverything; level < kLevels; ++level) {
    std::vector<std::string> parts = {StringPrintf("%3d%%", d.percent)};
    // Adds |text| to the line unless it is empty or the level leaves it out.
    auto add = [&](const std::string& text, int gone_from) {
      if (!text.empty() && level < gone_from) parts.push_back(text);
    };
    add(d.total && level < kNoTotal ? bytes + " / " + HumanBytes(d.total) : bytes, kNoSize);
    add(d.speed ? HumanBytes(static_cast<uint64_t>(*d.speed)) + "/s" : "", kNoSpeed);
    add("elapsed " + Duration(d.elapsed), kNoElapsed);
    add(eta ? "ETA " + Duration(*eta) : "", kNoEta);
    add(d.state, kLevels);
    add(counts, kNoCounts);
    add(KeyHints(d.state), kLevels);
    const std::string rest = android::base::Join(parts, level < kOneSpace ? "  " : " ");
    if (level >= kNoBar) {
      line = "  " + rest;
      if (line.size() <= room) break;
      continue;
    }
    // "  [" + bar + "] " + rest
    const size_t fixed = 5 + rest.size();
    if (fixed + kMinBarWidth > room) continue;
    const size_t width = std::min(kBarWidth, room - fixed);
    const size_t filled = std::min<size_t>(width, d.percent * width / 100);
    line = "  [" + std::string(filled, '#') + std::string(width - filled, '-') + "] " + rest;
    break;
  }
  if (line.size() > room) line.resize(room);
  return line;
}

// Returns |text| in the terminal style |sgr| ("1" bold, "2" dim) when |color| is on.
std::string Styled(bool color, const char* sgr, const std::string& text) {
  return color ? StringPrintf("\033[%sm%s\033[0m", sgr, text.c_str()) : text;
}

class PlainDisplay : public Display {
 public:
  PlainDisplay(bool verbose, bool color) : verbose_(verbose), color_(color) {}
  void ShowLine(const std::string& text) override {
    printf("%s %s\n", Styled(color_, "1", tag_ + ":").c_str(), text.c_str());
    fflush(stdout);
  }

 protected:
  void ShowSection(const std::string& tag, const std::string&) override { tag_ = tag; }
  void ShowLog(const std::string& line) override {
    if (verbose_) ShowLine("log " + line);
  }
  void ShowProgress(const DownloadState& d) override {
    if (d.percent == last_percent_ && d.state == last_state_) return;
    if (d.state != last_state_ && !last_state_.empty()) ShowLine(d.state);
    if (d.percent != last_percent_) {
      std::string line = StringPrintf("%d%% %s of %s", d.percent, HumanBytes(d.bytes).c_str(),
                                      HumanBytes(d.total).c_str());
      if (d.speed) line += " at " + HumanBytes(static_cast<uint64_t>(*d.speed)) + "/s";
      line += ", " + Duration(d.elapsed) + " elapsed";
      if (const std::optional<double> eta = d.eta()) line += ", " + Duration(*eta) + " left";
      ShowLine(line);
    }
    last_percent_ = d.percent;
    last_state_ = d.state;
  }
  void EndProgress() override {
    last_percent_ = -1;
    last_state_.clear();
  }

 private:
  bool verbose_;
  bool color_;
  std::string tag_ = "ui";
  int last_percent_ = -1;
  std::string last_state_;
};

class TerminalDisplay : public Display {
 public:
  TerminalDisplay(bool verbose, bool color) : verbose_(verbose), color_(color) {}
  void ShowLine(const std::string& text) override {
    ClearBar();
    printf("  %s\n", text.c_str());
    Redraw();
  }

 protected:
  void ShowSection(const std::string&, const std::string& title) override {
    ClearBar();
    printf("\n%s\n", Styled(color_, "1", title).c_str());
    fflush(stdout);
  }
  void ShowLog(const std::string& line) override {
    if (!verbose_) return;
    ClearBar();
    printf("  %s\n", Styled(color_, "2", line).c_str());
    Redraw();
  }
  void ShowProgress(const DownloadState& download) override {
    download_ = download;
    drawing_ = true;
    Redraw();
  }
  void EndProgress() override {
    if (drawing_) printf("\n");
    drawing_ = false;
    fflush(stdout);
  }

 private:
  void ClearBar() {
    if (drawing_) printf("\r\033[K");
  }
  void Redraw() {
    // One physical line, so that the next redraw replaces it.
    if (drawing_) printf("\r\033[K%s", ProgressLine(download_, TerminalColumns()).c_str());
    fflush(stdout);
  }
  bool verbose_;
  bool color_;
  bool drawing_ = false;
  DownloadState download_;
};

}  // namespace

std::unique_ptr<Display> Display::Create(bool terminal, bool verbose, bool color) {
  if (terminal) return std::make_unique<TerminalDisplay>(verbose, color);
  return std::make_unique<PlainDisplay>(verbose, color);
}

void Display::OnEvent(const Event& event) {
  switch (event.kind) {
    case EventKind::kBegin: {
      const FieldValue* title = event.Find("title");
      ShowSection(event.stage, title ? std::get<std::string>(*title) : event.stage);
      return;
    }
    case EventKind::kDownload:
      EndProgress();
      break;
    default:
      break;
  }
  if (event.text.empty()) return;
  for (const std::string& line : android::base::Split(event.text, "\n")) ShowLine(line);
}

void Display::OnProgress(const DownloadState& download) {
  if (download.active) ShowProgress(download);
}

void Display::OnLogLine(double, const std::string& line) {
  ShowLog(line);
}

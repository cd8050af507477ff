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

// Returns the progress line for a terminal of |columns| columns. When the whole line does not
// fit, the least important parts go first, in this order: the retry and redirect counts, the
// total size, the elapsed time, the bar (which shrinks to kMinBarWidth before), the time left,
// the speed and the size; the percent, the state and the keys stay, and are cut only on a
// terminal too narrow for them alone.
std::string ProgressLine(const DownloadState& d, size_t columns) {
  std::string counts;
  if (d.retries) counts += StringPrintf("retries %d", d.retries);
  if (d.redirects)
    counts += std::string(counts.empty() ? "" : ", ") + "redirects " + std::to_string(d.redirects);
  const std::optional<double> eta = d.eta();
  struct Part {
    std::string text;
    int drop;             // the level from which the part is left out; 0: never
    std::string shorter;  // what stands in its place from that level on
  };
  const std::string bytes = HumanBytes(d.bytes);
  const std::vector<Part> parts = {
      {StringPrintf("%3d%%", d.percent), 0, ""},
      {bytes + " / " + HumanBytes(d.total), 2, bytes},
      {d.speed ? HumanBytes(static_cast<uint64_t>(*d.speed)) + "/s" : "", 6, ""},
      {"elapsed " + Duration(d.elapsed), 3, ""},
      {eta ? "ETA " + Duration(*eta) : "", 5, ""},
      {d.state, 0, ""},
      {counts, 1, ""},
      {KeyHints(d.state), 0, ""},
  };
  constexpr int kBarDrop = 4;
  constexpr int kLevels = 8;
  const size_t room = columns > 1 ? columns - 1 : 0;  // the last column would wrap the line
  std::string line;
  for (int level = 0; level < kLevels; ++level) {
    std::string rest;
    for (const Part& part : parts) {
      const std::string& text = part.drop == 0 || level < part.drop ? part.text : part.shorter;
      if (!text.empty()) rest += "  " + text;
    }
    if (level >= kBarDrop) {
      line = rest;
      if (line.size() <= room) break;
      continue;
    }
    // "  [" + bar + "] " + the percent and the rest
    rest.erase(0, 2);
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

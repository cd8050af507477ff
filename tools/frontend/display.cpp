/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "display.h"

#include <android-base/stringprintf.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "rom_description.h"

namespace {

using android::base::StringPrintf;

constexpr int kBarWidth = 30;
constexpr size_t kDefaultColumns = 80;

// Returns the width of the terminal on standard output.
size_t TerminalColumns() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return kDefaultColumns;
}

// Returns "m:ss" for |seconds|, or "-:--" when unknown.
std::string Duration(uint64_t seconds, bool known) {
  if (!known) return "-:--";
  return StringPrintf("%llu:%02llu", static_cast<unsigned long long>(seconds / 60),
                      static_cast<unsigned long long>(seconds % 60));
}

// Returns the time left at |view|'s speed; none once the whole package is there.
std::string TimeLeft(const DownloadView& view) {
  if (view.total > 0 && view.bytes >= view.total) return Duration(0, true);
  bool known = view.speed > 0 && view.total >= view.bytes;
  return Duration(known ? (view.total - view.bytes) / view.speed : 0, known);
}

// Returns |text| in the terminal style |sgr| ("1" bold, "2" dim) when |color| is on.
std::string Styled(bool color, const char* sgr, const std::string& text) {
  return color ? StringPrintf("\033[%sm%s\033[0m", sgr, text.c_str()) : text;
}

class PlainDisplay : public Display {
 public:
  PlainDisplay(bool verbose, bool color) : verbose_(verbose), color_(color) {}
  void Section(const std::string& tag, const std::string&) override { tag_ = tag; }
  void Event(const std::string& text) override { Line(text); }
  void Log(const std::string& line) override {
    if (verbose_) Line("log " + line);
  }
  void Progress(const DownloadView& view) override {
    if (view.percent == last_percent_ && view.state == last_state_) return;
    if (view.state != last_state_ && !last_state_.empty()) Line(view.state);
    if (view.percent != last_percent_) {
      Line(StringPrintf("%d%% %s of %s at %s/s, %s left", view.percent,
                        HumanBytes(view.bytes).c_str(), HumanBytes(view.total).c_str(),
                        HumanBytes(view.speed).c_str(), TimeLeft(view).c_str()));
    }
    last_percent_ = view.percent;
    last_state_ = view.state;
  }
  void EndProgress() override {}

 private:
  void Line(const std::string& text) {
    printf("%s %s\n", Styled(color_, "1", tag_ + ":").c_str(), text.c_str());
    fflush(stdout);
  }
  bool verbose_;
  bool color_;
  std::string tag_ = "ui";
  int last_percent_ = -1;
  std::string last_state_;
};

class TerminalDisplay : public Display {
 public:
  TerminalDisplay(bool verbose, bool color) : verbose_(verbose), color_(color) {}
  void Section(const std::string&, const std::string& title) override {
    ClearBar();
    printf("\n%s\n", Styled(color_, "1", title).c_str());
    fflush(stdout);
  }
  void Event(const std::string& text) override {
    ClearBar();
    printf("  %s\n", text.c_str());
    Redraw();
  }
  void Log(const std::string& line) override {
    if (!verbose_) return;
    ClearBar();
    printf("  %s\n", Styled(color_, "2", line).c_str());
    Redraw();
  }
  void Progress(const DownloadView& view) override {
    view_ = view;
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
    if (drawing_) {
      const int filled = std::min(kBarWidth, view_.percent * kBarWidth / 100);
      std::string bar(filled, '#');
      bar.append(kBarWidth - filled, '-');
      std::string line = StringPrintf(
          "  [%s] %3d%%  %s / %s  %s/s  ETA %s  %s", bar.c_str(), view_.percent,
          HumanBytes(view_.bytes).c_str(), HumanBytes(view_.total).c_str(),
          HumanBytes(view_.speed).c_str(), TimeLeft(view_).c_str(), view_.state.c_str());
      if (view_.retries) line += StringPrintf("  retries %d", view_.retries);
      if (view_.state == "downloading" || view_.state == "paused") {
        line += "  [p]ause [c]ontinue [s]top";
      }
      // One physical line, so that the next redraw replaces it.
      const size_t columns = TerminalColumns();
      if (line.size() >= columns) line.resize(columns - 1);
      printf("\r\033[K%s", line.c_str());
    }
    fflush(stdout);
  }
  bool verbose_;
  bool color_;
  bool drawing_ = false;
  DownloadView view_;
};

}  // namespace

std::unique_ptr<Display> Display::Create(bool terminal, bool verbose, bool color) {
  if (terminal) return std::make_unique<TerminalDisplay>(verbose, color);
  return std::make_unique<PlainDisplay>(verbose, color);
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "update_session.h"

#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <curl/curl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "package.h"

namespace {

using namespace std::chrono_literals;
using bundlerun_parent::Child;
using bundlerun_parent::StatusRecord;

constexpr char kUpdateBinaryPath[] = "/tmp/update-binary";
constexpr char kUiPrintPrefix[] = "E:ui_print: ";
constexpr char kCantRunPrefix[] = "E:Can't run ";
constexpr char kByeBye[] = "I:Bye bye, RUN_UPDATER";

std::atomic<bool> g_interrupted{false};

void OnInterrupt(int) {
  g_interrupted = true;
}

// Returns what a failure payload means: a libcurl code with libcurl's words, or the time-out.
std::string Meaning(const std::string& payload) {
  if (payload == "CURLE_OPERATION_TIMEDOUT") return "timed out after 5 seconds";
  int code = 0;
  if (!android::base::ParseInt(payload, &code)) return payload;
  return "libcurl " + payload + ", " + curl_easy_strerror(static_cast<CURLcode>(code));
}

// Returns what a record of stage one says, for the display.
std::string DescribeStageOne(const StatusRecord& r) {
  static const char* const kTasks[] = {"server time", "update query", "package probe"};
  const std::string task = r.index >= 0 && r.index < 3 ? kTasks[r.index] : "task";
  const std::string raw = " (" + r.text() + ")";
  if (r.letter == 'f') return task + " failed: " + Meaning(r.payload) + raw;
  if (r.index == 0) return "clock set from the update server" + raw;
  if (r.index == 1) return "update server answered" + raw;
  if (r.payload == "0") return "a ROM is offered, its package address answered" + raw;
  if (r.payload == "2") return "no ROM is offered: the device is up to date" + raw;
  return task + " done" + raw;
}

// Returns the size of |path|, or 0.
uint64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// Puts the terminal into single-key mode for the download and restores it afterwards.
class KeyMode {
 public:
  explicit KeyMode(bool enable) {
    if (!enable || tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios raw = saved_;
    raw.c_lflag &= ~(ICANON | ECHO);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
  }
  ~KeyMode() {
    if (active_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
  }

 private:
  termios saved_{};
  bool active_ = false;
};

}  // namespace

UpdateSession::UpdateSession(const UiOptions& options, Display& display, FILE* log)
    : options_(options), display_(display), log_(log) {
  // Outside the update boot image bundlerun keeps its scratch tree on a tmpfs under /cache.
  const bool boot_environment =
      android::base::GetProperty("ro.bootimage.name", "android") == "yonda";
  const std::string prefix = boot_environment ? "" : "/cache";
  scratch_dir_ = prefix + "/tmp/download";
  package_path_ = prefix + "/tmp/secure_update.zip";
  signal(SIGINT, OnInterrupt);
  signal(SIGPIPE, SIG_IGN);
}

int UpdateSession::Run() {
  // The front end owns the terminal for the whole update: keys act, they are not echoed.
  KeyMode keys(options_.terminal && isatty(STDIN_FILENO));
  bool failed = false;
  if (!StageOne(&failed)) return failed ? kUiStageFailed : kUiDone;
  RomDescription rom;
  PackageAddress address;
  if (!ShowRom(&rom, &address)) return kUiStageFailed;
  int result = StageTwo(rom, address);
  if (result != kUiDone || !options_.install) return result;
  return Install();
}

void UpdateSession::BeginLogSection(const std::string& title) {
  fprintf(log_, "\n===== %s =====\n", title.c_str());
  fflush(log_);
  parser_ = bundlerun_parent::StatusParser();
  status_seen_ = out_seen_ = err_seen_ = 0;
  partial_line_.clear();
}

void UpdateSession::OnLogLine(const std::string& line) {
  fprintf(log_, "%s\n", line.c_str());
  if (installing_) {
    if (android::base::StartsWith(line, kUiPrintPrefix)) {
      display_.Event(line.substr(strlen(kUiPrintPrefix)));
      return;
    }
    if (android::base::StartsWith(line, kCantRunPrefix)) {
      cannot_run_ = true;
      display_.Event(line.substr(2));
      return;
    }
    if (line == kByeBye) installer_done_ = true;
  }
  display_.Log(line);
}

std::vector<StatusRecord> UpdateSession::Drain(Child& child) {
  const std::string& out = child.out();
  partial_line_ += out.substr(out_seen_);
  out_seen_ = out.size();
  size_t end;
  while ((end = partial_line_.find('\n')) != std::string::npos) {
    OnLogLine(partial_line_.substr(0, end));
    partial_line_.erase(0, end + 1);
  }
  const std::string& err = child.err();
  fwrite(err.data() + err_seen_, 1, err.size() - err_seen_, log_);
  err_seen_ = err.size();
  fflush(log_);

  const std::string& status = child.status();
  std::vector<StatusRecord> records = parser_.Feed(status.substr(status_seen_));
  status_seen_ = status.size();
  return records;
}

std::vector<StatusRecord> UpdateSession::Finish(Child& child) {
  int status = child.WaitForExit(30s);
  std::vector<StatusRecord> records = Drain(child);
  if (!partial_line_.empty()) OnLogLine(partial_line_);
  partial_line_.clear();
  for (StatusRecord& r : parser_.Finish()) records.push_back(r);
  if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    display_.Event(WIFSIGNALED(status)
                       ? "bundlerun ended abnormally (signal " + std::to_string(WTERMSIG(status)) +
                             "); see the log"
                       : "bundlerun ended with status " + std::to_string(WEXITSTATUS(status)));
  }
  return records;
}

bool UpdateSession::StageOne(bool* failed) {
  display_.Section("stage1", "Stage one: server time, update query, package probe");
  BeginLogSection("stage one");
  std::unique_ptr<Child> child = Child::StartStage(options_.bundlerun, "--first_stage", {});
  if (!child) {
    display_.Event("cannot start " + options_.bundlerun + ": " + strerror(errno));
    *failed = true;
    return false;
  }
  std::string last;
  auto show = [&](const std::vector<StatusRecord>& records) {
    for (const StatusRecord& r : records) {
      display_.Event(DescribeStageOne(r));
      last = r.text();
    }
  };
  while (child->running()) {
    child->Pump(100ms);
    show(Drain(*child));
  }
  show(Finish(*child));
  if (last == "2:s:0") return true;
  *failed = last != "2:s:2";
  if (*failed) display_.Event("stage one ended without offering a ROM; see the log");
  return false;
}

bool UpdateSession::ShowRom(RomDescription* rom, PackageAddress* address) {
  display_.Section("rom", "Offered ROM");
  std::string error;
  std::optional<RomDescription> read = ReadRomDescription(scratch_dir_, &error);
  if (!read) {
    display_.Event(error);
    return false;
  }
  *rom = *read;
  display_.Event("version " + rom->version + " (the device runs " + rom->current_version + ")");
  display_.Event("size " +
                 (rom->size ? HumanBytes(*rom->size) + " (" + std::to_string(*rom->size) + " bytes)"
                            : std::string("unknown")));
  display_.Event("md5 " + rom->md5);
  std::optional<PackageAddress> chosen = ChoosePackageAddress(*rom, &error);
  for (size_t n = 0; n < rom->mirrors.size(); ++n) {
    std::string note;
    if (chosen && static_cast<int>(n) == chosen->mirror) {
      note = "  <- chosen";
    } else if (!chosen || static_cast<int>(n) < chosen->mirror) {
      note = "  (skipped: https)";
    }
    display_.Event("mirror " + std::to_string(n) + " " + rom->mirrors[n] + note);
  }
  if (!chosen) {
    display_.Event("no package address: " + error);
    return false;
  }
  *address = *chosen;
  return true;
}

int UpdateSession::StageTwo(const RomDescription& rom, const PackageAddress& address) {
  display_.Section("stage2", "Stage two: download");
  display_.Event("downloading " + address.url() + " (mirror " + std::to_string(address.mirror) +
                 ") to " + package_path_);
  BeginLogSection("stage two");
  std::unique_ptr<Child> child = Child::StartStage(options_.bundlerun, "--second_stage",
                                                   {address.scheme, address.host, address.path});
  if (!child) {
    display_.Event("cannot start " + options_.bundlerun + ": " + strerror(errno));
    return kUiStageFailed;
  }

  int key_fd = STDIN_FILENO;
  bool stop_sent = false;
  DownloadView view;
  view.total = rom.size.value_or(0);
  // Until bundlerun's first speed line (a second into the transfer, or never for a fast mirror)
  // the speed is the package file's growth since the stage began.
  bool speed_reported = false;
  const uint64_t held_bytes = FileSize(package_path_);
  const auto began = std::chrono::steady_clock::now();
  auto observe = [&] {
    view.bytes = FileSize(package_path_);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    if (!speed_reported && seconds > 0 && view.bytes > held_bytes) {
      view.speed = static_cast<uint64_t>((view.bytes - held_bytes) / seconds);
    }
  };
  std::string completed;
  bool stopped = false;

  auto send = [&](char command) {
    if (command == 's') {
      stop_sent = true;
      view.state = "stopping";
    }
    child->SendCommand(std::string(1, command) + "\n");
  };
  auto apply = [&](const std::vector<StatusRecord>& records) {
    for (const StatusRecord& r : records) {
      if (r.letter == 'p') {
        view.percent = atoi(r.payload.c_str());
      } else if (r.letter == 's') {
        view.speed = strtoull(r.payload.c_str(), nullptr, 10);
        speed_reported = true;
      } else if (r.letter == 'r') {
        if (r.payload == "p") view.state = "paused";
        if (r.payload == "c") view.state = "downloading";
        if (r.payload == "s") {
          stopped = true;
          view.state = "stopped";
        }
      } else if (r.letter == 'f') {
        ++view.retries;
        display_.Event("transfer failed (" + Meaning(r.payload) + "), retry " +
                       std::to_string(view.retries));
      } else if (r.letter == 'c' && completed.empty()) {
        completed = r.payload.empty() ? "-" : r.payload;
        view.percent = 100;
        view.state = "complete";
      }
    }
  };

  while (child->running()) {
    if (child->Pump(100ms, key_fd)) {
      char key = 0;
      if (read(key_fd, &key, 1) <= 0) {
        key_fd = -1;  // No more keys (end of input).
      } else if (key == 'p' || key == 'c' || key == 's') {
        send(key);
      }
    }
    if (g_interrupted && !stop_sent) send('s');
    apply(Drain(*child));
    if (options_.stop_at >= 0 && view.percent >= options_.stop_at && !stop_sent) send('s');
    observe();
    display_.Progress(view);
  }
  apply(Finish(*child));
  observe();
  display_.Progress(view);
  display_.EndProgress();

  if (stopped) {
    display_.Event("download stopped at " + std::to_string(view.percent) + "% (" +
                   HumanBytes(view.bytes) + " kept for the next attempt)");
    return kUiStopped;
  }
  if (completed.empty()) {
    display_.Event("download did not complete; see the log");
    return kUiStageFailed;
  }
  display_.Section("verify", "Integrity");
  const std::string expected = android::base::Trim(rom.md5);
  if (completed != expected) {
    display_.Event("package does NOT match the ROM: MD5 " + completed + ", the ROM says " +
                   expected);
    return kUiPackageMismatch;
  }
  display_.Event("package intact: MD5 " + completed + " matches the ROM's");
  return kUiDone;
}

int UpdateSession::Install() {
  display_.Section("install", "Install");
  std::string error;
  if (!ExtractUpdateBinary(package_path_, kUpdateBinaryPath, &error)) {
    display_.Event(error);
    return kUiInstallFailed;
  }
  display_.Event(std::string("installer extracted to ") + kUpdateBinaryPath);
  BeginLogSection("install");
  installing_ = true;
  std::unique_ptr<Child> child = Child::StartCommand(options_.bundlerun, "6");
  if (!child) {
    display_.Event("cannot start " + options_.bundlerun + ": " + strerror(errno));
    return kUiInstallFailed;
  }
  while (child->running()) {
    child->Pump(100ms);
    Drain(*child);
  }
  Finish(*child);
  installing_ = false;
  if (cannot_run_ || !installer_done_) return kUiInstallFailed;
  display_.Event("installer finished");
  return kUiDone;
}

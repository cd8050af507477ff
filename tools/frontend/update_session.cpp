/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "update_session.h"

#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <curl/curl.h>
#include <errno.h>
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
constexpr char kRedirectPrefix[] = "D:>> Redirected URL=";
// bundlerun's log line just before the failure line of a transfer that it tries again.
constexpr char kRetryPrefix[] = "E:Unexception(";

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

// Returns whether a failure line of the download ends it. bundlerun tries again after every
// failure but two: "3:f:3" (it had no package address and asked nothing) and "3:f:52" (a
// transfer completed with nothing received). A transfer that libcurl itself ends with 3 or 52 is
// tried again like any other; bundlerun announces every retry on its log just before the
// failure line, which |announced| says.
bool EndsDownload(const std::string& payload, bool announced) {
  return !announced && (payload == "3" || payload == "52");
}

// Returns what a failure line that ends the download means.
std::string DownloadEnd(const std::string& payload) {
  return payload == "3" ? "bundlerun had no package address"
                        : "the transfer completed with nothing received";
}

// Returns the name of a task of stage one.
std::string TaskName(int index) {
  static const char* const kTasks[] = {"server time", "update query", "package probe"};
  return index >= 0 && index < 3 ? kTasks[index] : "task";
}

// Returns what a record of stage one says, for the display.
std::string DescribeStageOne(const StatusRecord& r) {
  const std::string task = TaskName(r.index);
  const std::string raw = " (" + r.text() + ")";
  if (r.letter == 'f') return task + " failed: " + Meaning(r.payload) + raw;
  if (r.index == 0) return "clock set from the update server" + raw;
  if (r.index == 1) return "update server answered" + raw;
  if (r.payload == "0") return "a ROM is offered, its package address answered" + raw;
  if (r.payload == "2") return "no ROM is offered: the device is up to date" + raw;
  return task + " done" + raw;
}

// Returns the fields of a task's status record: its index, name and line, whether it succeeded,
// and for a failure the code and what it means.
std::vector<Field> TaskFields(const StatusRecord& r, const std::string& name) {
  std::vector<Field> fields = {
      {"task", int64_t{r.index}}, {"name", name}, {"status", r.text()}, {"ok", r.letter != 'f'}};
  if (r.letter == 'f') {
    fields.push_back({"code", r.payload});
    fields.push_back({"meaning", Meaning(r.payload)});
  }
  return fields;
}

// Returns what an exit status of this program says.
const char* Outcome(int status) {
  switch (status) {
    case kUiDone:
      return "done";
    case kUiStageFailed:
      return "stage failed";
    case kUiPackageMismatch:
      return "package mismatch";
    case kUiInstallFailed:
      return "install failed";
    case kUiStopped:
      return "stopped";
    default:
      return "usage";
  }
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

UpdateSession::UpdateSession(const UiOptions& options, SessionRecord& record)
    : options_(options), record_(record) {
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
  record_.Add(EventKind::kStart, "",
              {{"version", DeskToolVersion()},
               {"bundlerun", options_.bundlerun},
               {"args", options_.arguments},
               {"wall", record_.clock().started()},
               {"log", options_.log_path}});
  int result = kUiDone;
  {
    // The front end owns the terminal for the whole update: keys act, they are not echoed.
    KeyMode keys(options_.terminal && isatty(STDIN_FILENO));
    bool failed = false;
    RomDescription rom;
    PackageAddress address;
    if (!StageOne(&failed)) {
      result = failed ? kUiStageFailed : kUiDone;
    } else if (!ShowRom(&rom, &address)) {
      result = kUiStageFailed;
    } else {
      result = Download(rom, address);
      if (result == kUiDone && options_.install) result = Install();
    }
  }
  RecordResult(result);
  return result;
}

void UpdateSession::RecordResult(int status) {
  const DownloadState& d = record_.download();
  record_.Begin("done", "Done");
  record_.Add(EventKind::kResult, status == kUiDone ? "update finished" : "update did not finish",
              {{"status", int64_t{status}},
               {"outcome", Outcome(status)},
               {"elapsed", record_.Now()},
               {"bytes", static_cast<int64_t>(earlier_bytes_ + d.received())},
               {"retries", int64_t{earlier_retries_ + d.retries}},
               {"redirects", int64_t{earlier_redirects_ + d.redirects}},
               {"pauses", int64_t{earlier_pauses_ + d.pauses}},
               {"redownloads", int64_t{redownloads_}}});
}

int UpdateSession::Download(const RomDescription& rom, const PackageAddress& address) {
  int result = StageTwo(rom, address);
  // A mirror that answers a resumed request with the whole file leaves, after any broken
  // connection, a package longer than the ROM; only a download from nothing can mend it.
  while (result == kUiPackageMismatch && redownloads_ < options_.redownload) {
    // A package left in place would have the next download appended to it.
    if (unlink(package_path_.c_str()) != 0 && errno != ENOENT) {
      const std::string reason = strerror(errno);
      record_.Add(EventKind::kNote, "cannot remove the package " + package_path_ + ": " + reason +
                                        "; not downloading it again");
      return kUiPackageMismatch;
    }
    ++redownloads_;
    const DownloadState& d = record_.download();
    earlier_bytes_ += d.received();
    earlier_retries_ += d.retries;
    earlier_redirects_ += d.redirects;
    earlier_pauses_ += d.pauses;
    record_.Add(EventKind::kRedownload,
                "removed the package; downloading it again (" + std::to_string(redownloads_) +
                    " of " + std::to_string(options_.redownload) + ")",
                {{"redownload", int64_t{redownloads_}}, {"most", int64_t{options_.redownload}}});
    result = StageTwo(rom, address);
  }
  return result;
}

void UpdateSession::ResetChannels() {
  parser_ = bundlerun_parent::StatusParser();
  status_seen_ = out_seen_ = err_seen_ = 0;
  partial_out_.clear();
  partial_err_.clear();
}

void UpdateSession::CannotStart() {
  record_.Add(EventKind::kNote, "cannot start " + options_.bundlerun + ": " + strerror(errno));
}

void UpdateSession::OnLogLine(const std::string& line) {
  record_.LogLine(line);
  if (downloading_ && android::base::StartsWith(line, kRetryPrefix)) ++announced_retries_;
  if (downloading_ && android::base::StartsWith(line, kRedirectPrefix)) {
    const std::string url = line.substr(strlen(kRedirectPrefix));
    record_.Add(EventKind::kRedirect, "transfer redirected to " + url, {{"url", url}});
  }
  if (!installing_) return;
  if (android::base::StartsWith(line, kUiPrintPrefix)) {
    const std::string text = line.substr(strlen(kUiPrintPrefix));
    record_.Add(EventKind::kInstaller, text);
  } else if (android::base::StartsWith(line, kCantRunPrefix)) {
    cannot_run_ = true;
    record_.Add(EventKind::kNote, line.substr(2));
  } else if (line == kByeBye) {
    installer_done_ = true;
  }
}

std::vector<StatusRecord> UpdateSession::Drain(Child& child) {
  // Complete lines of standard output and standard error go to the record as they come.
  auto lines = [this](const std::string& bytes, size_t* seen, std::string* partial) {
    *partial += bytes.substr(*seen);
    *seen = bytes.size();
    size_t end;
    while ((end = partial->find('\n')) != std::string::npos) {
      const std::string line = partial->substr(0, end);
      partial->erase(0, end + 1);
      OnLogLine(line);
    }
  };
  lines(child.out(), &out_seen_, &partial_out_);
  lines(child.err(), &err_seen_, &partial_err_);

  const std::string& status = child.status();
  std::vector<StatusRecord> records = parser_.Feed(status.substr(status_seen_));
  status_seen_ = status.size();
  return records;
}

std::vector<StatusRecord> UpdateSession::Finish(Child& child) {
  int status = child.WaitForExit(30s);
  std::vector<StatusRecord> records = Drain(child);
  for (std::string* partial : {&partial_out_, &partial_err_}) {
    if (!partial->empty()) OnLogLine(*partial);
    partial->clear();
  }
  for (StatusRecord& r : parser_.Finish()) records.push_back(r);
  if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    record_.Add(EventKind::kNote,
                WIFSIGNALED(status)
                    ? "bundlerun ended abnormally (signal " + std::to_string(WTERMSIG(status)) +
                          "); see the log"
                    : "bundlerun ended with status " + std::to_string(WEXITSTATUS(status)));
  }
  return records;
}

bool UpdateSession::StageOne(bool* failed) {
  record_.Begin("stage1", "Stage one: server time, update query, package probe");
  ResetChannels();
  std::unique_ptr<Child> child = Child::StartStage(options_.bundlerun, "--first_stage", {});
  if (!child) {
    CannotStart();
    *failed = true;
    return false;
  }
  std::string last;
  auto show = [&](const std::vector<StatusRecord>& records) {
    for (const StatusRecord& r : records) {
      record_.Add(EventKind::kTask, DescribeStageOne(r), TaskFields(r, TaskName(r.index)));
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
  if (*failed) record_.Add(EventKind::kNote, "stage one ended without offering a ROM; see the log");
  return false;
}

bool UpdateSession::ShowRom(RomDescription* rom, PackageAddress* address) {
  record_.Begin("rom", "Offered ROM");
  std::string error;
  std::optional<RomDescription> read = ReadRomDescription(scratch_dir_, &error);
  if (!read) {
    record_.Add(EventKind::kNote, error);
    return false;
  }
  *rom = *read;
  std::string text =
      "version " + rom->version + " (the device runs " + rom->current_version + ")\nsize " +
      (rom->size ? HumanBytes(*rom->size) + " (" + std::to_string(*rom->size) + " bytes)"
                 : std::string("unknown")) +
      "\nmd5 " + rom->md5;
  std::optional<PackageAddress> chosen = ChoosePackageAddress(*rom, &error);
  for (size_t n = 0; n < rom->mirrors.size(); ++n) {
    std::string note;
    if (chosen && static_cast<int>(n) == chosen->mirror) {
      note = "  <- chosen";
    } else if (!chosen || static_cast<int>(n) < chosen->mirror) {
      note = "  (skipped: https)";
    }
    text += "\nmirror " + std::to_string(n) + " " + rom->mirrors[n] + note;
  }
  record_.Add(EventKind::kRom, text,
              {{"version", rom->version},
               {"current", rom->current_version},
               {"size", rom->size ? FieldValue(static_cast<int64_t>(*rom->size)) : nullptr},
               {"md5", rom->md5},
               {"mirrors", rom->mirrors}});
  if (!chosen) {
    record_.Add(EventKind::kNote, "no package address: " + error);
    return false;
  }
  *address = *chosen;
  return true;
}

int UpdateSession::StageTwo(const RomDescription& rom, const PackageAddress& address) {
  record_.Begin("stage2", "Stage two: download");
  record_.Add(
      EventKind::kMirror,
      "downloading " + address.url() + " (mirror " + std::to_string(address.mirror) + ") to " +
          package_path_,
      {{"mirror", int64_t{address.mirror}}, {"url", address.url()}, {"host", address.host}});
  ResetChannels();
  std::unique_ptr<Child> child = Child::StartStage(options_.bundlerun, "--second_stage",
                                                   {address.scheme, address.host, address.path});
  if (!child) {
    CannotStart();
    return kUiStageFailed;
  }

  int key_fd = STDIN_FILENO;
  bool stop_sent = false;
  std::string completed;
  bool stopped = false;
  bool failed = false;
  announced_retries_ = 0;
  record_.StartDownload(rom.size.value_or(0), FileSize(package_path_));
  downloading_ = true;

  // |by| says where the command came from: a key, a line of input, --stop-at or an interrupt.
  auto send = [&](char command, const char* by) {
    if (command == 's') stop_sent = true;
    record_.Add(EventKind::kCommand, "", {{"command", std::string(1, command)}, {"by", by}});
    child->SendCommand(std::string(1, command) + "\n");
  };
  auto apply = [&](const std::vector<StatusRecord>& records) {
    for (const StatusRecord& r : records) {
      const Field status = {"status", r.text()};
      if (r.letter == 'p') {
        record_.SetPercent(atoi(r.payload.c_str()));
      } else if (r.letter == 'r') {
        if (r.payload == "p") record_.Add(EventKind::kPaused, "", {status});
        if (r.payload == "c") record_.Add(EventKind::kContinued, "", {status});
        if (r.payload == "s") {
          stopped = true;
          record_.Add(EventKind::kStopped, "", {status});
        }
      } else if (r.letter == 'f' && failed) {
        // After the download's end, each redirect it followed reports that end once more.
      } else if (r.letter == 'f' && EndsDownload(r.payload, announced_retries_ > 0)) {
        failed = true;
        record_.Add(EventKind::kTask,
                    "download failed: " + DownloadEnd(r.payload) + " (" + r.text() + ")",
                    {{"task", int64_t{r.index}},
                     {"name", "download"},
                     status,
                     {"ok", false},
                     {"code", r.payload},
                     {"meaning", DownloadEnd(r.payload)}});
      } else if (r.letter == 'f') {
        if (announced_retries_ > 0) --announced_retries_;
        const int retry = record_.download().retries + 1;
        record_.Add(EventKind::kRetry,
                    "transfer failed (" + Meaning(r.payload) + "), retry " + std::to_string(retry),
                    {{"retry", int64_t{retry}},
                     status,
                     {"code", r.payload},
                     {"meaning", Meaning(r.payload)}});
      } else if (r.letter == 'c' && completed.empty()) {
        // A redirected transfer reports its completion once more afterwards: the first counts.
        completed = r.payload.empty() ? "-" : r.payload;
        record_.Add(EventKind::kTask, "",
                    {{"task", int64_t{r.index}},
                     {"name", "download"},
                     status,
                     {"ok", true},
                     {"md5", r.payload}});
      }
      // Speed lines ("3:s:") are not used: the front end measures the file's growth itself.
    }
  };

  const char* by = options_.terminal ? "key" : "input";
  while (child->running()) {
    if (child->Pump(100ms, key_fd)) {
      char key = 0;
      if (read(key_fd, &key, 1) <= 0) {
        key_fd = -1;  // No more keys (end of input).
      } else if (key == 'p' || key == 'c' || key == 's') {
        send(key, by);
      }
    }
    if (g_interrupted && !stop_sent) send('s', "interrupt");
    apply(Drain(*child));
    if (options_.stop_at >= 0 && record_.download().percent >= options_.stop_at && !stop_sent) {
      send('s', "stop-at");
    }
    record_.ObserveDownload(FileSize(package_path_));
  }
  apply(Finish(*child));
  record_.ObserveDownload(FileSize(package_path_));
  downloading_ = false;

  if (stopped) {
    record_.EndDownload("stopped");
    record_.Add(EventKind::kNote,
                "download stopped at " + std::to_string(record_.download().percent) + "% (" +
                    HumanBytes(record_.download().bytes) + " kept for the next attempt)");
    return kUiStopped;
  }
  if (completed.empty()) {
    record_.EndDownload("failed");
    record_.Add(EventKind::kNote, "download did not complete; see the log");
    return kUiStageFailed;
  }
  record_.EndDownload("complete");
  record_.Begin("verify", "Integrity");
  const std::string expected = android::base::Trim(rom.md5);
  const bool intact = completed == expected;
  record_.Add(
      EventKind::kVerdict,
      intact ? "package intact: MD5 " + completed + " matches the ROM's"
             : "package does NOT match the ROM: MD5 " + completed + ", the ROM says " + expected,
      {{"ok", intact}, {"md5", completed}, {"expected", expected}});
  return intact ? kUiDone : kUiPackageMismatch;
}

int UpdateSession::Install() {
  record_.Begin("install", "Install");
  std::string error;
  if (!ExtractUpdateBinary(package_path_, kUpdateBinaryPath, &error)) {
    record_.Add(EventKind::kInstall, error, {{"ok", false}});
    return kUiInstallFailed;
  }
  record_.Add(EventKind::kNote, std::string("installer extracted to ") + kUpdateBinaryPath);
  ResetChannels();
  installing_ = true;
  std::unique_ptr<Child> child = Child::StartCommand(options_.bundlerun, "6");
  if (!child) {
    CannotStart();
    record_.Add(EventKind::kInstall, "the installer did not run", {{"ok", false}});
    return kUiInstallFailed;
  }
  while (child->running()) {
    child->Pump(100ms);
    Drain(*child);
  }
  Finish(*child);
  installing_ = false;
  if (cannot_run_ || !installer_done_) {
    record_.Add(EventKind::kInstall,
                cannot_run_ ? "the installer could not run" : "the installer did not finish",
                {{"ok", false}});
    return kUiInstallFailed;
  }
  record_.Add(EventKind::kInstall, "installer finished", {{"ok", true}});
  return kUiDone;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun-ui: a terminal front end that plays the update boot environment's screen owner, so
// that a whole update can be watched and steered on a desk.

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "desk_command_line.h"
#include "display.h"
#include "json_events.h"
#include "record.h"
#include "session_log.h"
#include "svg_report.h"
#include "update_session.h"

namespace {

constexpr char kDescription[] =
    R"(Runs a whole update the way the boot environment's front end does: stage one (server time,
update query, package probe), the offered ROM, stage two (the download, with p to pause, c to
continue and s to stop), the integrity check against the ROM's md5, and the installer.
)";

constexpr char kEpilogue[] =
    R"(Keys during the download, on a terminal: p pause, c continue, s stop. Without a terminal
the same letters may come on standard input, one per line.

Every line of the log starts with the seconds since the run began, as "[%12.6f] "; each run
starts with a header line: the date and time, this program's version and arguments, and the
bundlerun it runs. --json writes the events the display shows, and the download's progress, as
one JSON object per line: "t" (seconds since the run began), "stage", "event", "text" when the
display would show something, and the event's own fields; the README lists the events.

Environment:
  NO_COLOR           when set and not empty, --color=auto draws without colour
  BUNDLERUN_PROPERTIES
                     the device's property file, read by bundlerun and by this program

Exit status:
  0   the update is installed, or no ROM is offered
  1   a stage failed
  2   the package does not match the ROM's md5 after the last download that
      --redownload allows, or cannot be removed to be downloaded again
  3   the installer could not run
  4   the download was stopped
  64  bad usage
)";

// Returns the bundlerun installed in this program's directory, or else the one of the build tree
// this program was built in.
std::string DefaultBundlerun() {
  const std::string beside = android::base::GetExecutableDirectory() + "/bundlerun";
  return access(beside.c_str(), X_OK) == 0 ? beside : BUNDLERUN_BIN;
}

// Returns whether "auto" colour is on: on a terminal, unless NO_COLOR is set and not empty.
bool AutoColor() {
  const char* no_color = getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) && (no_color == nullptr || no_color[0] == '\0');
}

// Returns a new file beside |path| (its name in |temp|), where the report is written before it
// is renamed to |path|; -1 with errno set when none can be made there.
android::base::unique_fd MakeBeside(const std::string& path, std::string* temp) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    errno = EISDIR;
    return android::base::unique_fd();
  }
  *temp = path + ".XXXXXX";
  return android::base::unique_fd(mkostemp(temp->data(), O_CLOEXEC));
}

// Returns whether the report can be written to |path| when the run ends, and says why not: the
// check before anything runs, so that a report that cannot be written is a usage error.
bool CanWriteReport(const std::string& path) {
  std::string temp;
  if (!MakeBeside(path, &temp).ok()) {
    fprintf(stderr, "bundlerun-ui: cannot write %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  unlink(temp.c_str());
  return true;
}

// Writes |svg| to |path| through a file beside it that is renamed at the end, so that |path|
// never holds a part of a picture, even when the run is killed; returns whether it did, and says
// why not.
bool WriteReport(const std::string& path, const std::string& svg) {
  std::string temp;
  android::base::unique_fd fd = MakeBeside(path, &temp);
  if (!fd.ok()) {
    fprintf(stderr, "bundlerun-ui: cannot write %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  // The permissions a file made with fopen would have: mkostemp gives the owner's alone.
  const mode_t mask = umask(0);
  umask(mask);
  if (fchmod(fd.get(), 0666 & ~mask) == 0 && android::base::WriteStringToFd(svg, fd.get()) &&
      close(fd.release()) == 0 && rename(temp.c_str(), path.c_str()) == 0) {
    return true;
  }
  fprintf(stderr, "bundlerun-ui: cannot write %s: %s\n", path.c_str(), strerror(errno));
  unlink(temp.c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  UiOptions options;
  options.bundlerun = DefaultBundlerun();
  options.log_path = "/tmp/bundlerun-ui.log";
  options.color = AutoColor();
  bool plain = false;
  for (int i = 1; i < argc; ++i) options.arguments.push_back(argv[i]);
  // Options that only store their value, or a fixed one.
  auto keep = [](std::string* target) {
    return [=](const std::string& value, std::string*) {
      *target = value;
      return true;
    };
  };
  auto set = [](auto* target, auto fixed) {
    return [=](const std::string&, std::string*) {
      *target = fixed;
      return true;
    };
  };
  const DeskTool tool = {
      "bundlerun-ui",
      "[OPTION]...",
      kDescription,
      {
          {"bundlerun", "PATH",
           "the bundlerun executable (default: the one installed beside this\n"
           "program, else the one built with it)",
           keep(&options.bundlerun)},
          {"log", "FILE", "where bundlerun's log lines go (default /tmp/bundlerun-ui.log)",
           keep(&options.log_path)},
          {"verbose", nullptr, "show bundlerun's log lines below the events too",
           set(&options.verbose, true)},
          {"plain", nullptr,
           "one plain line per event, even on a terminal (the default without\none)",
           set(&plain, true)},
          {"color", "WHEN",
           "colour the display: never, always, or auto (the default: on a\n"
           "terminal, unless NO_COLOR is set)",
           [&](const std::string& value, std::string* expected) {
             *expected = "never, always or auto";
             if (value != "never" && value != "always" && value != "auto") return false;
             options.color = value == "always" || (value == "auto" && AutoColor());
             return true;
           }},
          {"stop-at", "PERCENT", "send \"stop\" once the download reaches PERCENT",
           [&](const std::string& value, std::string* expected) {
             *expected = "a whole percent from 0 to 100";
             return android::base::ParseInt(value, &options.stop_at, 0, 100);
           }},
          {"redownload", "N",
           "when the package does not match the ROM's md5, remove it and\n"
           "download it again, at most N times (default 1; 0: never)",
           [&](const std::string& value, std::string* expected) {
             *expected = "a whole number from 0 to 100";
             return android::base::ParseInt(value, &options.redownload, 0, 100);
           }},
          {"no-install", nullptr, "end after the integrity check", set(&options.install, false)},
          {"json", nullptr,
           "write one JSON object per event on standard output instead of the\n"
           "display, each line flushed as it is written (see below)",
           set(&options.json, true)},
          {"report", "FILE.svg",
           "write a picture of the run to FILE.svg when it ends, whatever its\n"
           "end: the parts of the update on one time axis, the download's\n"
           "speed, its retries, redirects, pauses and stop, the verdict and the\n"
           "install",
           keep(&options.report_path)},
      },
      kEpilogue,
  };
  const int status = ParseDeskCommandLine(tool, argc, argv);
  if (status >= 0) return status;
  options.terminal = !plain && !options.json && isatty(STDOUT_FILENO);

  // Files that cannot be written are a usage error before anything runs, not after the update.
  using File = std::unique_ptr<FILE, int (*)(FILE*)>;
  auto open = [](const std::string& path, const char* mode) {
    File file(fopen(path.c_str(), mode), fclose);
    if (!file) fprintf(stderr, "bundlerun-ui: cannot open %s: %s\n", path.c_str(), strerror(errno));
    return file;
  };
  File log = open(options.log_path, "a");
  if (!log) return kUiUsage;
  if (!options.report_path.empty() && !CanWriteReport(options.report_path)) return kUiUsage;

  // One record of the session; the log, the display or the JSON stream, and the report read it.
  SessionRecord record;
  SessionLog session_log(log.get());
  record.AddListener(&session_log);
  std::unique_ptr<Display> display;
  JsonEventWriter json(stdout);
  if (options.json) {
    record.AddListener(&json);
  } else {
    display = Display::Create(options.terminal, options.verbose, options.color);
    record.AddListener(display.get());
  }
  UpdateSession session(options, record);
  const int result = session.Run();
  if (display) display->ShowLine("bundlerun's log: " + options.log_path);
  if (!options.report_path.empty() && WriteReport(options.report_path, SvgReport(record)) &&
      display) {
    display->ShowLine("report: " + options.report_path);
  }
  return result;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun-ui: a terminal front end that plays the update boot environment's screen owner, so
// that a whole update can be watched and steered on a desk.

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "display.h"
#include "update_session.h"

namespace {

constexpr char kUsage[] = R"(bundlerun-ui [OPTIONS]
Runs a whole update the way the boot environment's front end does: stage one (server time,
update query, package probe), the offered ROM, stage two (the download, with p to pause, c to
continue and s to stop), the integrity check against the ROM's md5, and the installer.

  --bundlerun PATH   the bundlerun executable (default: the one installed beside this
                     program, else the one built with it)
  --log FILE         where bundlerun's log lines go (default /tmp/bundlerun-ui.log)
  --verbose          show bundlerun's log lines below the events too
  --plain            one plain line per event, even on a terminal (the default without one)
  --stop-at PERCENT  send "stop" once the download reaches PERCENT
  --no-install       end after the integrity check

Keys during the download, on a terminal: p pause, c continue, s stop. Without a terminal the
same letters may come on standard input, one per line.

Exit status: 0 installed (or no ROM offered), 1 a stage failed, 2 the package does not match
the ROM's md5, 3 the installer could not run, 4 the download was stopped, 64 bad usage.
)";

// Returns the bundlerun installed in this program's directory, or else the one of the build tree
// this program was built in.
std::string DefaultBundlerun() {
  const std::string beside = android::base::GetExecutableDirectory() + "/bundlerun";
  return access(beside.c_str(), X_OK) == 0 ? beside : BUNDLERUN_BIN;
}

// Parses the command line; returns false on a usage error.
bool ParseArguments(int argc, char** argv, UiOptions* options, bool* plain, bool* help) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      *help = true;
    } else if (arg == "--verbose") {
      options->verbose = true;
    } else if (arg == "--plain") {
      *plain = true;
    } else if (arg == "--no-install") {
      options->install = false;
    } else if (arg == "--bundlerun" && has_value) {
      options->bundlerun = argv[++i];
    } else if (arg == "--log" && has_value) {
      options->log_path = argv[++i];
    } else if (arg == "--stop-at" && has_value) {
      if (!android::base::ParseInt(argv[++i], &options->stop_at, 0, 100)) return false;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  UiOptions options;
  options.bundlerun = DefaultBundlerun();
  options.log_path = "/tmp/bundlerun-ui.log";
  bool plain = false;
  bool help = false;
  if (!ParseArguments(argc, argv, &options, &plain, &help)) {
    fprintf(stderr, "%s", kUsage);
    return kUiUsage;
  }
  if (help) {
    printf("%s", kUsage);
    return 0;
  }
  options.terminal = !plain && isatty(STDOUT_FILENO);

  std::unique_ptr<FILE, int (*)(FILE*)> log(fopen(options.log_path.c_str(), "a"), fclose);
  if (!log) {
    fprintf(stderr, "bundlerun-ui: cannot open %s: %s\n", options.log_path.c_str(),
            strerror(errno));
    return kUiUsage;
  }
  std::unique_ptr<Display> display = Display::Create(options.terminal, options.verbose);
  UpdateSession session(options, *display, log.get());
  int result = session.Run();
  display->Section("done", "Done");
  display->Event(result == kUiDone ? "update finished" : "update did not finish");
  display->Event("bundlerun's log: " + options.log_path);
  return result;
}

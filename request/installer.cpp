/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "DownloadTask"

#include "request/installer.h"

#include <android-base/logging.h>
#include <android-base/parsedouble.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/unique_file.h"
#include "request/status_channel.h"

namespace {

// The installer and the package are where the front end puts them in the boot environment.
constexpr char kUpdateBinaryPath[] = "/tmp/update-binary";
constexpr char kUpdatePackagePath[] = "/tmp/secure_update.zip";
constexpr char kUpdaterApiVersion[] = "3";
constexpr size_t kUpdaterLineSize = 1024;

}  // namespace

void HandleUpdaterLine(const std::string& line) {
  std::string text = line;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  size_t blank = text.find(' ');
  const std::string command = text.substr(0, blank);
  const std::string arguments = blank == std::string::npos ? "" : text.substr(blank + 1);

  if (command == "progress") {
    std::vector<std::string> tokens = android::base::Split(arguments, " ");
    double fraction;
    int32_t seconds;
    if (tokens.size() != 2 || !android::base::ParseDouble(tokens[0], &fraction) ||
        !android::base::ParseInt(tokens[1], &seconds)) {
      LOG(ERROR) << "invalid \"progress\" parameters: " << text;
    }
  } else if (command == "log") {
    if (arguments.empty()) LOG(ERROR) << "invalid \"log\" parameters: " << text;
  } else if (command == "ui_print") {
    LOG(ERROR) << "ui_print: " << arguments;
  } else {
    LOG(ERROR) << "unknown command [" << command << "]";
  }
}

void run_updater() {
  android::base::unique_fd read_end, write_end;
  // The write end is inherited by the installer, which is told its number.
  if (!android::base::Pipe(&read_end, &write_end, 0)) {
    PLOG(ERROR) << "Failed to create the updater pipe";
    return;
  }
  std::vector<std::string> args = {kUpdateBinaryPath, kUpdaterApiVersion,
                                   std::to_string(write_end.get()), kUpdatePackagePath};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  // Nothing buffered may be written twice by the child.
  fflush(stdout);
  pid_t pid = fork();
  if (pid == -1) {
    PLOG(ERROR) << "Failed to fork the updater";
  } else if (pid == 0) {
    LOG(INFO) << "Here we go... the process " << getpid() << " is installing\n\n";
    umask(022);
    read_end.reset();
    fflush(stdout);
    execv(argv[0], argv.data());
    int error = errno;
    status_channel::WriteCantRun(stdout, argv[0], strerror(error));
    _exit(1);
  } else {
    write_end.reset();
    UniqueFile from_child(android::base::Fdopen(std::move(read_end), "r"));
    char buffer[kUpdaterLineSize];
    while (from_child && fgets(buffer, sizeof(buffer), from_child.get()) != nullptr) {
      HandleUpdaterLine(buffer);
    }
  }
  int status;
  waitpid(pid, &status, 0);
  LOG(INFO) << "Bye bye, RUN_UPDATER";
}

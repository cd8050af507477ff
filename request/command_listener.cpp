/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "ROMDOWNLOAD"

#include "request/command_listener.h"

#include <android-base/logging.h>
#include <curl/curl.h>
#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

namespace {

static_assert(CommandListener::kStopRequested == CURLE_ABORTED_BY_CALLBACK);

void Signal(int event_fd) {
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(event_fd, &one, sizeof(one)));
}

void Drain(int event_fd) {
  uint64_t count;
  TEMP_FAILURE_RETRY(read(event_fd, &count, sizeof(count)));
}

// Cuts |line| at its line feed or at a zero byte, whichever comes first, as the C string that
// fgets leaves would read; a line with neither is kept whole.
std::string CutAtEnd(std::string line) {
  const size_t end = line.find_first_of(std::string_view("\n\0", 2));
  if (end != std::string::npos) line.resize(end);
  return line;
}

}  // namespace

void CommandLineSplitter::Append(std::string_view bytes) {
  pending_.append(bytes);
}

std::optional<std::string> CommandLineSplitter::Next() {
  const size_t limit = std::min(pending_.size(), kLineSize - 1);
  const size_t feed = pending_.find('\n');
  size_t length;
  if (feed != std::string::npos && feed < limit) {
    length = feed + 1;
  } else if (pending_.size() >= kLineSize - 1) {
    length = kLineSize - 1;
  } else {
    return std::nullopt;
  }
  std::string line = pending_.substr(0, length);
  pending_.erase(0, length);
  return CutAtEnd(std::move(line));
}

std::optional<std::string> CommandLineSplitter::Finish() {
  if (pending_.empty()) return std::nullopt;
  std::string line = std::move(pending_);
  pending_.clear();
  return CutAtEnd(std::move(line));
}

CommandListener::CommandListener(std::function<void()> wake)
    : wake_(std::move(wake)),
      stopEvent_(eventfd(0, EFD_CLOEXEC)),
      takenEvent_(eventfd(0, EFD_CLOEXEC)) {}

CommandListener::~CommandListener() {
  Stop();
}

void CommandListener::Start(int fd) {
  if (fd < 0 || thread_.joinable()) return;
  if (!stopEvent_.ok() || !takenEvent_.ok()) {
    // Without its events the thread could be neither ended nor told that a command was taken.
    PLOG(ERROR) << "failed to create the command listener's events";
    return;
  }
  thread_ = std::thread(&CommandListener::Listen, this, fd);
}

char CommandListener::Take() {
  const char command = pending_.exchange(0);
  if (command != 0) Signal(takenEvent_.get());
  return command;
}

void CommandListener::Stop() {
  Signal(stopEvent_.get());
  if (thread_.joinable()) thread_.join();
}

void CommandListener::Listen(int fd) {
  char buffer[CommandLineSplitter::kLineSize];
  while (true) {
    if (std::optional<std::string> line = splitter_.Next()) {
      if (!Handle(*line)) return;
      continue;
    }
    const Wait wait = WaitFor(fd);
    if (wait == Wait::kStopped) return;
    const ssize_t n =
        wait == Wait::kReady ? TEMP_FAILURE_RETRY(read(fd, buffer, sizeof(buffer))) : -1;
    if (n > 0) {
      splitter_.Append(std::string_view(buffer, n));
      continue;
    }
    if (n < 0 && errno == EAGAIN) continue;
    // The front end closed its end (a read or wait error ends the stream just as well).
    if (std::optional<std::string> rest = splitter_.Finish()) {
      if (!Handle(*rest)) return;
    }
    End();
    return;
  }
}

void CommandListener::End() {
  ended_ = true;
  wake_();
}

bool CommandListener::Handle(const std::string& line) {
  LOG(ERROR) << "---->receive command: " << line;
  switch (line.c_str()[0]) {
    case 'c':
    case 'p':
      pending_ = line[0];
      wake_();
      // One command at a time: the next is read once the download has taken this one.
      switch (WaitFor(takenEvent_.get())) {
        case Wait::kReady:
          Drain(takenEvent_.get());
          return true;
        case Wait::kFailed:
          // Nothing more can be handed over: to the download the stream has ended.
          End();
          return false;
        case Wait::kStopped:
          return false;
      }
      return false;
    case 's':
      stop_ = kStopRequested;
      wake_();
      return false;
    default:
      LOG(WARNING) << "RomDownload INVALID COMMAND: " << line;
      return true;
  }
}

CommandListener::Wait CommandListener::WaitFor(int fd) {
  pollfd fds[] = {{fd, POLLIN, 0}, {stopEvent_.get(), POLLIN, 0}};
  if (TEMP_FAILURE_RETRY(poll(fds, 2, -1)) < 0) {
    PLOG(ERROR) << "failed to wait for the front end's commands";
    return Wait::kFailed;
  }
  return fds[1].revents == 0 ? Wait::kReady : Wait::kStopped;
}

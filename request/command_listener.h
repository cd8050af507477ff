/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The front end's commands during the download. A listener thread reads the command stream: a
// stop raises the process-wide stop flag, and a pause or a continue is handed over to the thread
// that runs the transfer, which alone touches the transfer's handle, applies it and answers.

#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

// Raised to 42 by the command listener on "stop"; the progress callback returns it, so a
// non-zero value aborts the transfer.
extern std::atomic<int32_t> gStopFlag;

// Splits the command stream into lines the way fgets with a 1024-byte buffer does: a line ends
// after its line feed or after 1023 bytes. Each line is cut at its line feed and at its first
// zero byte, which is where the front end's text ends.
class CommandLineSplitter {
 public:
  static constexpr size_t kLineSize = 1024;

  // Adds received bytes.
  void Append(std::string_view bytes);
  // Returns the next complete line, if there is one.
  std::optional<std::string> Next();
  // Returns the unterminated rest at the end of the stream, if there is one.
  std::optional<std::string> Finish();

 private:
  std::string pending_;
};

class CommandListener {
 public:
  // |wake| is called on the listener thread after a command was handed over or a stop raised,
  // so that the transfer thread sees it at once.
  explicit CommandListener(std::function<void()> wake);
  ~CommandListener();
  CommandListener(const CommandListener&) = delete;
  CommandListener& operator=(const CommandListener&) = delete;

  // Starts listening on |fd| unless a listener is running or the stream has ended: a listener
  // that ended on "stop" is started again, so a later "stop" reaches a later transfer.
  void Start(int fd);
  // Returns the pause ('p') or continue ('c') command waiting for the transfer, or 0. Only the
  // transfer thread calls this; the listener reads the next command once this has taken one.
  char Take();
  // Ends the listener thread, wherever it waits, and joins it.
  void Stop();

 private:
  // The listener thread: reads commands until the end of the stream, "stop" or Stop().
  void Listen(int fd);
  // Acts on one command line; returns false when the listener is to end.
  bool Handle(const std::string& line);
  // Waits until |fd| is readable or Stop() was called; returns false for the latter.
  bool WaitFor(int fd);

  std::function<void()> wake_;
  android::base::unique_fd stopEvent_;
  android::base::unique_fd takenEvent_;
  std::thread thread_;
  std::atomic<bool> running_{false};
  // Set on the listener thread, read by Start() after the thread was joined.
  bool ended_ = false;
  // Persists across listener threads, as a stream's buffer would: what came after a "stop" is
  // read by the next listener.
  CommandLineSplitter splitter_;
  std::atomic<char> pending_{0};
};

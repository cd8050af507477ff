/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The front end's commands during the download. A listener thread reads the command stream: a
// stop raises the stop flag, and a pause or a continue is handed over to the thread that runs
// the download, which alone touches the transfer's handle, applies it and answers.

#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

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
  // What the stop flag holds once the front end asked for a stop: the progress callback returns
  // it, so that libcurl ends the transfer as aborted by the callback.
  static constexpr int32_t kStopRequested = 42;

  // |wake| is called on the listener thread after a command was handed over, a stop raised or
  // the stream ended, so that the download's thread sees it at once.
  explicit CommandListener(std::function<void()> wake);
  ~CommandListener();
  CommandListener(const CommandListener&) = delete;
  CommandListener& operator=(const CommandListener&) = delete;

  // Starts listening on |fd| (once; a negative |fd| means nobody sends commands).
  void Start(int fd);
  // Returns the pause ('p') or continue ('c') command waiting to be applied, or 0. Only the
  // download's thread calls this; the listener reads the next command once this took one.
  char Take();
  // The stop flag: 0 while the download is to run on, kStopRequested once the front end asked
  // for a stop. It is never lowered again: a stop is honoured whatever the download is doing.
  const std::atomic<int32_t>& stopFlag() const { return stop_; }
  // Returns true while a command waits to be taken or a stop to be honoured: the download's
  // thread is to return to its loop.
  bool CommandWaiting() const { return pending_ != 0 || stop_ != 0; }
  // Returns true once the command stream has ended and every command before its end was taken.
  bool StreamEnded() const { return ended_; }
  // Ends the listener thread, wherever it waits, and joins it.
  void Stop();

 private:
  enum class Wait { kReady, kStopped, kFailed };

  // The listener thread: reads commands until the end of the stream, "stop" or Stop().
  void Listen(int fd);
  // Acts on one command line; returns false when the listener is to end.
  bool Handle(const std::string& line);
  // Marks the command stream as ended and wakes the download.
  void End();
  // Waits until |fd| is readable (kReady) or Stop() was called (kStopped); kFailed when the wait
  // itself failed.
  Wait WaitFor(int fd);

  std::function<void()> wake_;
  android::base::unique_fd stopEvent_;
  android::base::unique_fd takenEvent_;
  std::thread thread_;
  CommandLineSplitter splitter_;
  std::atomic<char> pending_{0};
  std::atomic<int32_t> stop_{0};
  std::atomic<bool> ended_{false};
};

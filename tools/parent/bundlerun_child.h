/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The front end's side of bundlerun: starts it with the two status pipes, collects what it
// writes on the status channel, standard output and standard error, and sends it commands.

#pragma once

#include <android-base/unique_fd.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bundlerun_parent {

// The environment variable that names a user-mode emulator (such as qemu-aarch64-static) through
// which every program is started, when the desk runs a build for another architecture.
constexpr char kEmulatorVariable[] = "BUNDLERUN_EMULATOR";

class Child {
 public:
  // Extra environment entries, "NAME=value", added to the parent's environment.
  using Environment = std::vector<std::string>;

  // Starts "bundlerun --run_from_fork <stage> <write fd> <read fd> <stage_args...>": the status
  // pipe and the command pipe are made here and their child ends passed by number.
  static std::unique_ptr<Child> StartStage(const std::string& program, const std::string& stage,
                                           const std::vector<std::string>& stage_args,
                                           const Environment& env = {});
  // Starts "bundlerun --run_from_command <number>"; the status lines come on standard output.
  static std::unique_ptr<Child> StartCommand(const std::string& program, const std::string& number,
                                             const Environment& env = {});
  // Starts |program| with exactly |args| and no status pipes.
  static std::unique_ptr<Child> StartRaw(const std::string& program,
                                         const std::vector<std::string>& args,
                                         const Environment& env = {});
  // Starts |program| like StartRaw, with a pipe on its standard input that SendCommand writes
  // to: a front end started this way takes its commands there.
  static std::unique_ptr<Child> StartWithInput(const std::string& program,
                                               const std::vector<std::string>& args,
                                               const Environment& env = {});

  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }

  // Waits up to |timeout| for output and reads what is there. Returns true when |wake_fd| (if
  // given) became readable. The command pipe stays open until the process has exited, as a front
  // end keeps it: bundlerun ends on its own.
  bool Pump(std::chrono::milliseconds timeout, int wake_fd = -1);
  // Pumps until |done| holds for the collected status bytes, or |timeout| passes, or all of
  // bundlerun's output has ended. Returns |done|'s last answer.
  bool WaitForStatus(const std::function<bool(const std::string&)>& done,
                     std::chrono::milliseconds timeout);
  // Pumps until every output has ended, reaps the process and then closes the command pipe.
  // Returns the wait status, or -1 when |timeout| passed (the process is then killed).
  int WaitForExit(std::chrono::milliseconds timeout);

  // Sends one command line to bundlerun's command listener, or to the standard input of a
  // program started with StartWithInput. Returns false when it is gone.
  bool SendCommand(const std::string& line);
  // Closes the command pipe, as the front end does when it stops listening.
  void CloseCommands() { command_.reset(); }
  // Closes the reading end of the status pipe, as a front end that went away does.
  void CloseStatus() { status_.reset(); }

  // Everything received so far, byte for byte.
  const std::string& status() const { return status_is_stdout_ ? out_bytes_ : status_bytes_; }
  const std::string& out() const { return out_bytes_; }
  const std::string& err() const { return err_bytes_; }

  bool running() const { return status_.ok() || out_.ok() || err_.ok(); }
  bool exited() const { return exited_; }
  int wait_status() const { return wait_status_; }
  // The resources the process used, once WaitForExit has reaped it.
  const rusage& usage() const { return usage_; }

 private:
  Child() = default;
  static std::unique_ptr<Child> Spawn(const std::string& program, std::vector<std::string> args,
                                      const Environment& env, bool with_pipes, size_t fd_arg_index,
                                      bool with_input = false);
  void ReadFrom(android::base::unique_fd& fd, std::string& into);

  pid_t pid_ = -1;
  bool exited_ = false;
  int wait_status_ = 0;
  rusage usage_{};
  android::base::unique_fd status_;
  android::base::unique_fd command_;
  android::base::unique_fd out_;
  android::base::unique_fd err_;
  bool status_is_stdout_ = false;
  std::string status_bytes_;
  std::string out_bytes_;
  std::string err_bytes_;
};

// One record of the status channel, such as "0:s", "3:p:42" or "2:s:0".
struct StatusRecord {
  int index = -1;
  char letter = 0;
  std::string payload;
  bool terminated = true;  // false for the two records that end without a line feed
  std::string text() const;
};

// Splits the status byte stream into records. Records end with a line feed, except the ROM
// info line ("2:s:<digit>") and the stop line ("3:r:s"), which end after their last character
// whether or not more follows.
class StatusParser {
 public:
  // Adds received bytes and returns the records they complete.
  std::vector<StatusRecord> Feed(const std::string& bytes);
  // Returns what is left when the channel has ended (an unterminated last record).
  std::vector<StatusRecord> Finish();

 private:
  std::string pending_;
};

}  // namespace bundlerun_parent

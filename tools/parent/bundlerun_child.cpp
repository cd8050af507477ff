/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "bundlerun_child.h"

#include <android-base/file.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace bundlerun_parent {

namespace {

using android::base::unique_fd;
using Clock = std::chrono::steady_clock;

// Makes a pipe whose ends are not inherited by children unless passed on purpose.
bool MakePipe(unique_fd* read_end, unique_fd* write_end) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  read_end->reset(fds[0]);
  write_end->reset(fds[1]);
  return true;
}

std::vector<char*> ToArgv(std::vector<std::string>& strings) {
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  return argv;
}

}  // namespace

std::unique_ptr<Child> Child::StartStage(const std::string& program, const std::string& stage,
                                         const std::vector<std::string>& stage_args,
                                         const Environment& env) {
  std::vector<std::string> args = {"--run_from_fork", stage, "", ""};
  args.insert(args.end(), stage_args.begin(), stage_args.end());
  return Spawn(program, std::move(args), env, /*with_pipes=*/true, /*fd_arg_index=*/2);
}

std::unique_ptr<Child> Child::StartCommand(const std::string& program, const std::string& number,
                                           const Environment& env) {
  auto child = Spawn(program, {"--run_from_command", number}, env, /*with_pipes=*/false, 0);
  if (child) child->status_is_stdout_ = true;
  return child;
}

std::unique_ptr<Child> Child::StartRaw(const std::string& program,
                                       const std::vector<std::string>& args,
                                       const Environment& env) {
  return Spawn(program, args, env, /*with_pipes=*/false, 0);
}

std::unique_ptr<Child> Child::StartWithInput(const std::string& program,
                                             const std::vector<std::string>& args,
                                             const Environment& env) {
  return Spawn(program, args, env, /*with_pipes=*/false, 0, /*with_input=*/true);
}

std::unique_ptr<Child> Child::Spawn(const std::string& program, std::vector<std::string> args,
                                    const Environment& env, bool with_pipes, size_t fd_arg_index,
                                    bool with_input) {
  std::unique_ptr<Child> child(new Child());
  unique_fd child_status, child_command, child_out, child_err, child_in;
  if (with_pipes) {
    // A command sent after bundlerun has gone must fail, not end this process.
    signal(SIGPIPE, SIG_IGN);
    if (!MakePipe(&child->status_, &child_status) || !MakePipe(&child_command, &child->command_)) {
      return nullptr;
    }
    // The child's ends are inherited under their own numbers, which go on its command line.
    fcntl(child_status.get(), F_SETFD, 0);
    fcntl(child_command.get(), F_SETFD, 0);
    args[fd_arg_index] = std::to_string(child_status.get());
    args[fd_arg_index + 1] = std::to_string(child_command.get());
  }
  if (!MakePipe(&child->out_, &child_out) || !MakePipe(&child->err_, &child_err)) return nullptr;
  if (with_input) {
    // A command sent after the program has gone must fail, not end this process.
    signal(SIGPIPE, SIG_IGN);
    if (!MakePipe(&child_in, &child->command_)) return nullptr;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (with_input) {
    posix_spawn_file_actions_adddup2(&actions, child_in.get(), STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, child_out.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, child_err.get(), STDERR_FILENO);

  std::vector<std::string> argv_strings = {program};
  // A desk that runs a build for another architecture starts its programs through the
  // user-mode emulator named in BUNDLERUN_EMULATOR.
  const char* emulator = getenv(kEmulatorVariable);
  if (emulator != nullptr && emulator[0] != '\0') {
    argv_strings.insert(argv_strings.begin(), emulator);
  }
  argv_strings.insert(argv_strings.end(), args.begin(), args.end());
  std::vector<std::string> env_strings;
  for (char** e = environ; *e != nullptr; ++e) env_strings.emplace_back(*e);
  env_strings.insert(env_strings.end(), env.begin(), env.end());
  std::vector<char*> argv = ToArgv(argv_strings);
  std::vector<char*> envp = ToArgv(env_strings);

  int rc = posix_spawn(&child->pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    errno = rc;
    return nullptr;
  }
  return child;
}

Child::~Child() {
  if (!exited_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void Child::ReadFrom(unique_fd& fd, std::string& into) {
  char buffer[65536];
  ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), buffer, sizeof(buffer)));
  if (n > 0) {
    into.append(buffer, n);
  } else {
    fd.reset();
  }
}

bool Child::Pump(std::chrono::milliseconds timeout, int wake_fd) {
  struct Source {
    unique_fd* fd;
    std::string* into;
  };
  Source sources[] = {{&status_, &status_bytes_}, {&out_, &out_bytes_}, {&err_, &err_bytes_}};
  std::vector<pollfd> fds;
  std::vector<Source*> owners;
  for (Source& source : sources) {
    if (!source.fd->ok()) continue;
    fds.push_back({source.fd->get(), POLLIN, 0});
    owners.push_back(&source);
  }
  if (wake_fd >= 0) fds.push_back({wake_fd, POLLIN, 0});
  if (fds.empty()) return false;
  if (poll(fds.data(), fds.size(), static_cast<int>(timeout.count())) <= 0) return false;
  for (size_t i = 0; i < owners.size(); ++i) {
    if (fds[i].revents != 0) ReadFrom(*owners[i]->fd, *owners[i]->into);
  }
  return wake_fd >= 0 && fds.back().revents != 0;
}

bool Child::WaitForStatus(const std::function<bool(const std::string&)>& done,
                          std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  while (!done(status())) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !running()) return done(status());
    Pump(std::min(left, std::chrono::milliseconds(100)));
  }
  return true;
}

int Child::WaitForExit(std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  while (running()) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) break;
    Pump(std::min(left, std::chrono::milliseconds(100)));
  }
  if (!exited_) {
    // The process is awaited through a descriptor that becomes readable when it exits.
    unique_fd process(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd exited = {process.get(), POLLIN, 0};
    const bool timed_out =
        process.ok() &&
        (left.count() <= 0 || TEMP_FAILURE_RETRY(poll(&exited, 1, left.count())) == 0);
    if (timed_out) kill(pid_, SIGKILL);
    TEMP_FAILURE_RETRY(wait4(pid_, &wait_status_, 0, &usage_));
    exited_ = true;
    if (timed_out) return -1;
  }
  command_.reset();
  return wait_status_;
}

bool Child::SendCommand(const std::string& line) {
  if (!command_.ok()) return false;
  return android::base::WriteStringToFd(line, command_.get());
}

std::string StatusRecord::text() const {
  std::string text = std::to_string(index) + ":" + letter;
  if (!payload.empty()) text += ":" + payload;
  return text;
}

namespace {

// Returns the length of an unterminated record at the start of |s|, or 0.
size_t UnterminatedRecordLength(const std::string& s) {
  if (s.size() < 5) return 0;
  bool rom_info = s.compare(0, 4, "2:s:") == 0 && isdigit(static_cast<unsigned char>(s[4]));
  bool stopped = s.compare(0, 5, "3:r:s") == 0;
  if (!rom_info && !stopped) return 0;
  if (s.size() > 5 && s[5] == '\n') return 0;  // A terminated record after all.
  return 5;
}

bool ParseRecord(const std::string& text, bool terminated, StatusRecord* record) {
  if (text.size() < 3 || !isdigit(static_cast<unsigned char>(text[0])) || text[1] != ':') {
    return false;
  }
  record->index = text[0] - '0';
  record->letter = text[2];
  record->payload = text.size() > 4 && text[3] == ':' ? text.substr(4) : "";
  record->terminated = terminated;
  return true;
}

}  // namespace

std::vector<StatusRecord> StatusParser::Feed(const std::string& bytes) {
  pending_ += bytes;
  std::vector<StatusRecord> records;
  while (!pending_.empty()) {
    StatusRecord record;
    size_t length = UnterminatedRecordLength(pending_);
    // An unterminated record is complete only when more bytes follow it.
    if (length > 0 && pending_.size() > length) {
      if (ParseRecord(pending_.substr(0, length), false, &record)) records.push_back(record);
      pending_.erase(0, length);
      continue;
    }
    size_t end = pending_.find('\n');
    if (end == std::string::npos) break;
    if (ParseRecord(pending_.substr(0, end), true, &record)) records.push_back(record);
    pending_.erase(0, end + 1);
  }
  return records;
}

std::vector<StatusRecord> StatusParser::Finish() {
  std::vector<StatusRecord> records;
  StatusRecord record;
  if (ParseRecord(pending_, false, &record)) records.push_back(record);
  pending_.clear();
  return records;
}

}  // namespace bundlerun_parent

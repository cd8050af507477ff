/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun-soak: second stages against a hostile world, one session after another, each built
// from one seed. The mirror throttles, cuts transfers at random offsets (serving the rest on the
// next request), ends one with a reset, redirects through one or two hops, goes away for a moment
// and comes back; the front end sends pause, continue, junk and very long lines at random moments,
// sometimes stops, sometimes closes its command stream early, sometimes holds it open after the
// end. After each session it checks what must always hold. Run it inside the sandbox (scripts/soak
// does):
//
//   bundlerun-soak BUNDLERUN UPDATE_SERVER SESSIONS FIRST_SEED
//
// Prints one line per session; a failing session prints its seed, its plan and why, and the
// exit status is 1 when any failed. Replay one session with SESSIONS 1 and its seed.

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "bundlerun_child.h"

extern char** environ;

namespace {

using bundlerun_parent::Child;
using bundlerun_parent::StatusParser;
using bundlerun_parent::StatusRecord;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr char kWork[] = "/tmp/soak";
constexpr char kPackage[] = "/tmp/secure_update.zip";
constexpr char kFirstPath[] = "/base/V2.0/rom.zip";
// How long the process may take to end after its completion line or a stop.
constexpr auto kEndWithin = 5s;
constexpr auto kSessionLimit = 180s;

// What the front end does at one moment.
struct Action {
  enum Kind { kPause, kContinue, kJunk, kLongLine, kStop, kClose } kind;
  int after_ms;      // after the action before
  std::string line;  // what is written, for the kinds that write
};

// One session, all of it drawn from its seed.
struct Plan {
  uint64_t seed = 0;
  size_t size = 0;
  uint64_t rate = 0;  // bytes per second; 0: unthrottled
  int hops = 0;       // redirects before the package
  std::vector<uint64_t> drops;
  std::optional<uint64_t> vanish;  // where the mirror goes away, for |downtime_ms|
  int downtime_ms = 0;
  // Where a transfer ends with a TCP reset; the mirror then serves the rest of what the device's
  // package holds, as it cannot know how much of what it sent arrived.
  std::optional<uint64_t> reset;
  std::vector<Action> actions;
  bool hold_after_end = false;

  std::string Describe() const;
};

std::string Plan::Describe() const {
  static const char* const kKinds[] = {"p", "c", "junk", "long line", "stop", "close"};
  std::string text = "seed " + std::to_string(seed) + ": " + std::to_string(size) + " bytes at " +
                     (rate ? std::to_string(rate) + " B/s" : "full speed") + ", " +
                     std::to_string(hops) + " redirect(s), cut at";
  for (uint64_t d : drops) text += " " + std::to_string(d);
  if (drops.empty()) text += " nothing";
  if (reset) text += ", reset at " + std::to_string(*reset);
  if (vanish) {
    text += ", away at " + std::to_string(*vanish) + " for " + std::to_string(downtime_ms) + " ms";
  }
  text += hold_after_end ? ", pipe held after the end\n" : ", pipe closed at the end\n";
  for (const Action& a : actions) {
    text += "  +" + std::to_string(a.after_ms) + " ms " + kKinds[a.kind];
    if (a.kind == Action::kJunk) text += " \"" + android::base::Trim(a.line) + "\"";
    if (a.kind == Action::kLongLine) text += " (" + std::to_string(a.line.size()) + " bytes)";
    text += "\n";
  }
  return text;
}

Plan MakePlan(uint64_t seed) {
  std::mt19937_64 random(seed);
  auto between = [&](uint64_t low, uint64_t high) {
    return std::uniform_int_distribution<uint64_t>(low, high)(random);
  };
  auto chance = [&](int percent) { return between(1, 100) <= static_cast<uint64_t>(percent); };
  Plan plan;
  plan.seed = seed;
  plan.size = between(1, 4) * 1024 * 1024 + between(0, 65535);
  static const uint64_t kRates[] = {0, 2 << 20, 4 << 20, 8 << 20};
  plan.rate = kRates[between(0, 3)];
  plan.hops = static_cast<int>(between(0, 2));
  for (uint64_t n = between(0, 3); n > 0; --n) plan.drops.push_back(between(1, plan.size - 1));
  std::sort(plan.drops.begin(), plan.drops.end());
  plan.drops.erase(std::unique(plan.drops.begin(), plan.drops.end()), plan.drops.end());
  if (chance(30)) {
    plan.vanish = between(1, plan.size - 1);
    plan.drops.erase(std::remove(plan.drops.begin(), plan.drops.end(), *plan.vanish),
                     plan.drops.end());
    plan.downtime_ms = static_cast<int>(between(50, 1500));
  }
  if (chance(25)) plan.reset = between(1, plan.size - 1);
  for (uint64_t n = between(0, 12); n > 0; --n) {
    Action action{Action::kPause, static_cast<int>(between(0, 300)), ""};
    const uint64_t roll = between(1, 100);
    if (roll <= 35) {
      action = {Action::kPause, action.after_ms, between(0, 1) ? "p\n" : "pause\n"};
    } else if (roll <= 70) {
      action = {Action::kContinue, action.after_ms, between(0, 1) ? "c\n" : "continue\n"};
    } else if (roll <= 88) {
      std::string junk;
      static const char kLetters[] = "abdefghijklmnoqrtuvwxyz0123456789 ";
      junk += kLetters[between(0, 22)];  // never a command letter first
      for (uint64_t i = between(0, 15); i > 0; --i) junk += kLetters[between(0, 33)];
      action = {Action::kJunk, action.after_ms, junk + "\n"};
    } else {
      action = {Action::kLongLine, action.after_ms, std::string(between(1024, 6000), 'x') + "\n"};
    }
    plan.actions.push_back(action);
  }
  if (chance(20)) {
    plan.actions.push_back({Action::kStop, static_cast<int>(between(0, 1500)), "s\n"});
  } else if (chance(15)) {
    plan.actions.push_back({Action::kClose, static_cast<int>(between(0, 1500)), ""});
  }
  plan.hold_after_end = chance(50);
  return plan;
}

// The local update server as the session's mirror, restarted after it went away.
class Mirror {
 public:
  Mirror(std::string program, std::vector<std::string> args)
      : program_(std::move(program)), args_(std::move(args)) {}
  ~Mirror() { Kill(); }

  // Starts the server, serving bodies from |offset| on; returns false when it does not listen
  // within 10 seconds. The server says it listens on a pipe (--ready-fd).
  bool Start(uint64_t offset) {
    android::base::unique_fd ready_read, ready_write;
    if (!android::base::Pipe(&ready_read, &ready_write)) return false;
    std::vector<std::string> strings = {program_, "--offset", std::to_string(offset),
                                        "--ready-fd", std::to_string(kReadyFd)};
    strings.insert(strings.end(), args_.begin(), args_.end());
    std::vector<char*> argv;
    for (std::string& s : strings) argv.push_back(s.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ready_write.get(), kReadyFd);
    const int rc = posix_spawn(&pid_, program_.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ready_write.reset();
    if (rc != 0) return false;
    // "ready" and a line feed, or the end of the pipe when the server could not listen.
    pollfd fd = {ready_read.get(), POLLIN, 0};
    if (TEMP_FAILURE_RETRY(poll(&fd, 1, 10000)) != 1) return false;
    char answer[8] = {};
    return TEMP_FAILURE_RETRY(read(ready_read.get(), answer, sizeof(answer) - 1)) > 0 &&
           std::string(answer) == "ready\n";
  }
  // Returns true once the server has exited (it went away), reaping it.
  bool Gone() {
    if (pid_ <= 0) return true;
    if (waitpid(pid_, nullptr, WNOHANG) != pid_) return false;
    pid_ = -1;
    return true;
  }
  void Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  // The descriptor number the server writes "ready" to.
  static constexpr int kReadyFd = 3;

  std::string program_;
  std::vector<std::string> args_;
  pid_t pid_ = -1;
};

// Returns the size of |path|; a file not made yet holds nothing.
int64_t FileSize(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 ? st.st_size : 0;
}

std::string Md5Sum(const std::string& path) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("md5sum '" + path + "'").c_str(), "r"), pclose);
  char digest[33] = {};
  if (!pipe || fread(digest, 1, 32, pipe.get()) != 32) return "";
  return digest;
}

bool Shell(const std::string& command) {
  return system(command.c_str()) == 0;
}

// Lays out what the first stage leaves and the session's package on its mirrors. Returns the
// package's path on the mirror that serves its body.
std::string Prepare(const Plan& plan) {
  Shell(std::string("rm -rf ") + kWork + " /tmp/download " + kPackage);
  Shell(std::string("mkdir -p /tmp/download/LatestRom ") + kWork + "/mirror/base/V2.0 " + kWork +
        "/mirror2/pkg " + kWork + "/mirror3/final");
  symlink("/tmp/download/LatestRom", "/tmp/download/CurrentRom");
  android::base::WriteStringToFile(std::to_string(plan.size), "/tmp/download/LatestRom/filesize");
  std::string bytes(plan.size, '\0');
  std::mt19937_64 random(plan.seed ^ 0x9e3779b97f4a7c15ULL);
  for (char& b : bytes) b = static_cast<char>(random());
  static const char* const kFinal[] = {"/mirror/base/V2.0/rom.zip", "/mirror2/pkg/rom.zip",
                                       "/mirror3/final/rom.zip"};
  const std::string served = kWork + std::string(kFinal[plan.hops]);
  android::base::WriteStringToFile(bytes, served);
  return served;
}

std::vector<std::string> ServerArguments(const Plan& plan) {
  std::vector<std::string> args = {
      "--packages", std::string(kWork) + "/mirror",
      "--mirror",   "mirror2.yonda.example=" + std::string(kWork) + "/mirror2",
      "--mirror",   "mirror3.yonda.example=" + std::string(kWork) + "/mirror3"};
  if (plan.hops >= 1) {
    args.insert(args.end(), {"--redirect", std::string(kFirstPath) +
                                               "=http://mirror2.yonda.example/pkg/rom.zip"});
  }
  if (plan.hops >= 2) {
    args.insert(args.end(),
                {"--redirect", "/pkg/rom.zip=http://mirror3.yonda.example/final/rom.zip"});
  }
  if (plan.rate) args.insert(args.end(), {"--rate", std::to_string(plan.rate)});
  for (uint64_t d : plan.drops) args.insert(args.end(), {"--drop-at", std::to_string(d)});
  if (plan.reset) {
    args.insert(args.end(),
                {"--reset-at", std::to_string(*plan.reset), "--remainder-of", kPackage});
  }
  return args;
}

// Runs one session; returns why it failed, or an empty string.
std::string RunSession(const Plan& plan, const std::string& bundlerun, const std::string& server,
                       std::string* outcome) {
  const std::string served = Prepare(plan);
  // The first server goes away at the planned offset; the one that comes back serves the rest.
  std::vector<std::string> first_args = ServerArguments(plan);
  if (plan.vanish) {
    first_args.insert(first_args.end(), {"--vanish-at", std::to_string(*plan.vanish)});
  }
  auto mirror = std::make_unique<Mirror>(server, first_args);
  if (!mirror->Start(0)) return "the mirror did not start";
  bool restarted = !plan.vanish;
  std::optional<Clock::time_point> gone_at;

  auto child = Child::StartStage(bundlerun, "--second_stage",
                                 {"http://", "mirror.yonda.example", kFirstPath});
  if (!child) return "bundlerun did not start";
  const Clock::time_point began = Clock::now();
  Clock::time_point next_action = began;
  size_t action = 0;

  StatusParser parser;
  size_t status_seen = 0;
  std::string sent;  // the pause and continue commands sent, in order
  size_t acks = 0;
  bool stop_asked = false;
  bool closed = false;
  std::optional<Clock::time_point> ending;  // a completion line or a stop: the end is due
  int64_t held = -1;                        // the file's size while the download is held
  std::vector<std::string> completions;
  bool stopped = false;
  std::string failure;

  while (child->running()) {
    child->Pump(5ms);
    const Clock::time_point now = Clock::now();
    for (const StatusRecord& r : parser.Feed(child->status().substr(status_seen))) {
      if (stopped) failure = "a line after \"3:r:s\": " + r.text();
      if (r.letter == 'r' && (r.payload == "p" || r.payload == "c")) {
        if (acks >= sent.size() || sent[acks] != r.payload[0]) {
          failure = "an acknowledgement without its command: " + r.text();
        }
        ++acks;
      } else if (r.letter == 'r' && r.payload == "s") {
        stopped = true;
      } else if (r.letter == 'c') {
        completions.push_back(r.payload);
        if (!ending) ending = now;
        if (!plan.hold_after_end && !closed) {
          child->CloseCommands();
          closed = true;
        }
      }
    }
    status_seen = child->status().size();
    if (!failure.empty()) break;

    // Paused: every command sent was answered and the last was a pause.
    const bool holding = !sent.empty() && acks == sent.size() && sent.back() == 'p';
    if (!holding) held = -1;
    if (holding && held < 0) held = FileSize(kPackage);
    if (held >= 0 && FileSize(kPackage) != held) {
      failure = "the package grew from " + std::to_string(held) + " while paused";
      break;
    }

    if (!restarted && mirror->Gone()) {
      if (!gone_at) gone_at = now;
      if (now - *gone_at >= std::chrono::milliseconds(plan.downtime_ms)) {
        mirror = std::make_unique<Mirror>(server, ServerArguments(plan));
        if (!mirror->Start(*plan.vanish)) return "the mirror did not come back";
        restarted = true;
      }
    }

    if (action < plan.actions.size() && now >= next_action) {
      const Action& a = plan.actions[action++];
      if (a.kind == Action::kClose) {
        child->CloseCommands();
        closed = true;
        if (!sent.empty() && sent.back() == 'p' && !ending) ending = now;
      } else if (!closed) {
        child->SendCommand(a.line);
        if (a.kind == Action::kPause) sent += 'p';
        if (a.kind == Action::kContinue) sent += 'c';
        if (a.kind == Action::kStop) {
          stop_asked = true;
          if (!ending) ending = now;
        }
      }
      if (action < plan.actions.size()) {
        next_action = now + std::chrono::milliseconds(plan.actions[action].after_ms);
      } else if (!closed && !stop_asked && !sent.empty() && sent.back() == 'p') {
        // Nobody would continue the download otherwise.
        child->SendCommand("c\n");
        sent += 'c';
      }
    }
    if (ending && now - *ending > kEndWithin) {
      failure = "still running " + std::to_string(kEndWithin.count()) + " s after its end";
      break;
    }
    if (now - began > kSessionLimit) {
      failure = "still running after " + std::to_string(kSessionLimit.count()) + " s";
      break;
    }
  }
  const int status = child->WaitForExit(failure.empty() ? 10s : 0s);
  for (const StatusRecord& r : parser.Feed(child->status().substr(status_seen))) {
    if (r.letter == 'c') completions.push_back(r.payload);
    if (r.letter == 'r' && r.payload == "s") stopped = true;
  }
  for (const StatusRecord& r : parser.Finish()) {
    if (r.letter == 'r' && r.payload == "s") stopped = true;
  }
  if (failure.empty()) {
    const std::string& err = child->err();
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      failure = "wait status " + std::to_string(status);
    } else if (err.find("Sanitizer") != std::string::npos ||
               err.find("runtime error") != std::string::npos) {
      failure = "sanitizer report:\n" + err;
    } else if (stopped) {
      if (!android::base::EndsWith(child->status(), "3:r:s")) {
        failure = "a stop that is not the last line";
      }
    } else if (stop_asked && completions.empty()) {
      failure = "a stop without \"3:r:s\"";
    } else if (completions.empty()) {
      failure = "no completion line";
    } else {
      const std::string expected = Md5Sum(served);
      if (Md5Sum(kPackage) != expected) failure = "the package is not the mirror's";
      for (const std::string& c : completions) {
        if (c != expected) failure = "a completion line with " + c + " instead of " + expected;
      }
    }
  }
  *outcome = stopped ? "stopped" : "complete";
  if (!failure.empty()) {
    const std::string& s = child->status();
    failure +=
        "\nstatus ends: " + s.substr(s.size() - std::min<size_t>(s.size(), 300)) + "\nlog ends: " +
        child->out().substr(child->out().size() - std::min<size_t>(child->out().size(), 2000));
  }
  return failure;
}

}  // namespace

int main(int argc, char** argv) {
  android::base::InitLogging(argv, android::base::StderrLogger);
  if (argc != 5 || getenv("BUNDLERUN_SANDBOX") == nullptr) {
    fprintf(stderr,
            "usage: bundlerun-soak BUNDLERUN UPDATE_SERVER SESSIONS FIRST_SEED\n"
            "(inside the sandbox: see scripts/soak)\n");
    return 64;
  }
  signal(SIGPIPE, SIG_IGN);
  const int sessions = atoi(argv[3]);
  const uint64_t first_seed = strtoull(argv[4], nullptr, 10);
  int failed = 0;
  for (int i = 0; i < sessions; ++i) {
    const Plan plan = MakePlan(first_seed + i);
    const Clock::time_point began = Clock::now();
    std::string outcome;
    const std::string failure = RunSession(plan, argv[1], argv[2], &outcome);
    const double seconds = std::chrono::duration<double>(Clock::now() - began).count();
    if (failure.empty()) {
      printf("soak: session %d seed %llu: %s in %.1f s\n", i + 1,
             static_cast<unsigned long long>(plan.seed), outcome.c_str(), seconds);
    } else {
      ++failed;
      printf("soak: session %d seed %llu FAILED: %s\nplan: %s", i + 1,
             static_cast<unsigned long long>(plan.seed), failure.c_str(), plan.Describe().c_str());
    }
    fflush(stdout);
  }
  printf("soak: %d of %d sessions failed\n", failed, sessions);
  return failed == 0 ? 0 : 1;
}

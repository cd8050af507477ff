/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun-bench: the front end's side of bench/download. It starts a client, watches the
// package file grow (inotify) and the status channel, and prints what a user feels, one result
// line per run:
//
//   bundlerun-bench download BUNDLERUN HOST PATH PACKAGE SIZE
//       "<wall s> <peak RSS KiB> <CPU s> <last byte to 3:c: ms>" for a second stage
//   bundlerun-bench curl CURL URL OUTPUT SIZE
//       "<wall s> <peak RSS KiB> <CPU s> <last byte to exit ms>" for the curl command line
//   bundlerun-bench cycles BUNDLERUN HOST PATH PACKAGE COUNT
//       one "<p to 3:r:p ms> <c to 64 KiB more in the file ms>" line per pause/continue cycle
//   bundlerun-bench stage1 BUNDLERUN
//       "<wall s>" for a first stage
//   bundlerun-bench run PROGRAM ARGS...
//       "<wall s>" for any command (the curl requests that do a first stage's wire work)

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bundlerun_child.h"

namespace {

using bundlerun_parent::Child;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int64_t kMoving = 64 * 1024;

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

double Millis(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

int64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// Reports each change of a file's directory, so that the file's growth is seen as it happens.
class FileWatch {
 public:
  explicit FileWatch(const std::string& path) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    std::string dir = path;
    inotify_add_watch(fd_.get(), dirname(dir.data()), IN_CREATE | IN_MODIFY);
  }
  int fd() const { return fd_.get(); }
  void Drain() {
    char events[64 * 1024];
    while (read(fd_.get(), events, sizeof(events)) > 0) {
    }
  }

 private:
  android::base::unique_fd fd_;
};

// Pumps |child| until |done| holds, checking after every output and every change of the watched
// directory. Returns false when the child ended first.
bool PumpUntil(Child& child, FileWatch& watch, const std::function<bool()>& done) {
  while (!done()) {
    if (!child.running()) return false;
    if (child.Pump(1000ms, watch.fd())) watch.Drain();
  }
  return true;
}

// Pumps |child| until |until|, waking at that time rather than at the next second.
void PumpUntilTime(Child& child, FileWatch& watch, Clock::time_point until) {
  for (Clock::time_point now = Clock::now(); now < until && child.running(); now = Clock::now()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now) + 1ms;
    if (child.Pump(left, watch.fd())) watch.Drain();
  }
}

void PrintUsage(Child& child, Clock::time_point began, Clock::time_point ended, double latency) {
  const rusage& usage = child.usage();
  const double cpu = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
                     usage.ru_stime.tv_usec / 1e6;
  printf("%.4f %ld %.3f %.2f\n", Seconds(ended - began), usage.ru_maxrss, cpu, latency);
}

// Runs one transfer by |child| into |package|; |complete| tells when the client said it is done.
int Transfer(std::unique_ptr<Child> child, Clock::time_point began, const std::string& package,
             int64_t size, FileWatch& watch, const std::function<bool(Child&)>& complete) {
  if (!child) return 1;
  std::optional<Clock::time_point> last_byte, completed;
  PumpUntil(*child, watch, [&] {
    if (!last_byte && FileSize(package) >= size) last_byte = Clock::now();
    if (!completed && complete(*child)) completed = Clock::now();
    return last_byte && completed;
  });
  if (child->WaitForExit(600s) != 0) {
    fprintf(stderr, "bench: client failed\n%s\n%s", child->out().c_str(), child->err().c_str());
    return 1;
  }
  const Clock::time_point ended = Clock::now();
  if (!last_byte) last_byte = ended;
  if (!completed) completed = ended;
  PrintUsage(*child, began, ended, Millis(*completed - *last_byte));
  return 0;
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

int Cycles(const std::string& bundlerun, const std::vector<std::string>& address,
           const std::string& package, int count) {
  FileWatch watch(package);
  auto child = Child::StartStage(bundlerun, "--second_stage", address);
  if (!child) return 1;
  // Measured while the transfer runs, not while it connects.
  if (!PumpUntil(*child, watch, [&] { return FileSize(package) >= 1024 * 1024; })) return 1;
  for (int i = 1; i <= count; ++i) {
    const Clock::time_point pause_sent = Clock::now();
    child->SendCommand("p\n");
    if (!PumpUntil(*child, watch, [&] { return Count(child->status(), "3:r:p\n") >= size_t(i); })) {
      fprintf(stderr, "cycle %d: no answer to p; status ends %s\n", i,
              child->status()
                  .substr(child->status().size() - std::min<size_t>(80, child->status().size()))
                  .c_str());
      return 1;
    }
    const double pause_ms = Millis(Clock::now() - pause_sent);
    // Paused long enough for the mirror to fill the socket buffers, as a user's pause does.
    PumpUntilTime(*child, watch, Clock::now() + 200ms);
    const int64_t held = FileSize(package);
    const Clock::time_point continue_sent = Clock::now();
    child->SendCommand("c\n");
    if (!PumpUntil(*child, watch, [&] { return FileSize(package) > held + kMoving; })) {
      fprintf(stderr, "cycle %d: the package did not grow after c (%lld bytes); status ends %s\n",
              i, static_cast<long long>(FileSize(package)),
              child->status()
                  .substr(child->status().size() - std::min<size_t>(80, child->status().size()))
                  .c_str());
      return 1;
    }
    printf("%.3f %.3f\n", pause_ms, Millis(Clock::now() - continue_sent));
    PumpUntilTime(*child, watch, Clock::now() + 100ms);
  }
  child->SendCommand("s\n");
  child->WaitForExit(60s);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  android::base::InitLogging(argv, android::base::StderrLogger);
  const std::vector<std::string> args(argv + 1, argv + argc);
  const std::string mode = args.empty() ? "" : args[0];
  if (mode == "download" && args.size() == 6) {
    FileWatch watch(args[4]);
    const Clock::time_point began = Clock::now();
    auto child = Child::StartStage(args[1], "--second_stage", {"http://", args[2], args[3]});
    return Transfer(std::move(child), began, args[4], std::stoll(args[5]), watch,
                    [](Child& c) { return c.status().find("3:c:") != std::string::npos; });
  }
  if (mode == "curl" && args.size() == 5) {
    FileWatch watch(args[3]);
    const Clock::time_point began = Clock::now();
    auto child = Child::StartRaw(args[1], {"-s", "-o", args[3], args[2]});
    return Transfer(std::move(child), began, args[3], std::stoll(args[4]), watch,
                    [](Child& c) { return !c.running(); });
  }
  if (mode == "cycles" && args.size() == 6) {
    return Cycles(args[1], {"http://", args[2], args[3]}, args[4], std::stoi(args[5]));
  }
  if (mode == "stage1" && args.size() == 2) {
    const Clock::time_point began = Clock::now();
    auto child = Child::StartStage(args[1], "--first_stage", {});
    if (!child || child->WaitForExit(600s) != 0) return 1;
    if (child->status() != "0:s\n1:s\n2:s:0") {
      fprintf(stderr, "bench: first stage said %s\n", child->status().c_str());
      return 1;
    }
    printf("%.4f\n", Seconds(Clock::now() - began));
    return 0;
  }
  if (mode == "run" && args.size() >= 2) {
    const Clock::time_point began = Clock::now();
    auto child = Child::StartRaw(args[1], std::vector<std::string>(args.begin() + 2, args.end()));
    if (!child || child->WaitForExit(600s) != 0) return 1;
    printf("%.4f\n", Seconds(Clock::now() - began));
    return 0;
  }
  // Bad usage, as for every tool of the project.
  fprintf(stderr, "usage: see the comment at the top of bench/bench_client.cpp\n");
  return 64;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "harness/harness.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <cJSON.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>

extern char** environ;

namespace harness {

void RequireSandbox() {
  const char* inside = getenv("BUNDLERUN_SANDBOX");
  if (inside == nullptr || std::string(inside) != "1") {
    fprintf(stderr, "refusing to run outside tests/sandbox/run\n");
    abort();
  }
}

std::string ReadFile(const std::string& path) {
  std::string content;
  android::base::ReadFileToString(path, &content, /*follow_symlinks=*/true);
  return content;
}

void WriteFile(const std::string& path, const std::string& content) {
  ASSERT_TRUE(android::base::WriteStringToFile(content, path)) << path;
}

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

std::string Output(const std::string& command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string output;
  if (pipe) android::base::ReadFdToString(fileno(pipe.get()), &output);
  return output;
}

std::string Md5Sum(const std::string& path) {
  return Output("md5sum '" + path + "'").substr(0, 32);
}

PropertyFile::PropertyFile(std::string path) : path_(std::move(path)) {}

void PropertyFile::Set(const std::string& key, const std::string& value) {
  values_[key] = value;
  Write();
}

void PropertyFile::Remove(const std::string& key) {
  values_.erase(key);
  Write();
}

void PropertyFile::Write() const {
  std::string text = "# written by the test\n";
  for (const auto& [key, value] : values_) text += key + "=" + value + "\n";
  mkdir(kHarnessDir, 0755);
  WriteFile(path_, text);
}

std::string ShellProgram(const std::string& program) {
  const char* emulator = getenv(bundlerun_parent::kEmulatorVariable);
  return emulator != nullptr && emulator[0] != '\0' ? std::string(emulator) + " " + program
                                                    : program;
}

void BindHosts(const std::string& content) {
  mkdir(kHarnessDir, 0755);
  std::string path = std::string(kHarnessDir) + "/hosts";
  WriteFile(path, content);
  ASSERT_EQ(0, mount(path.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr));
}

HelperProcess::HelperProcess(const std::string& program, const std::vector<std::string>& args,
                             const std::string& ready_flag) {
  // The child's end of the pipe is descriptor 3 there.
  constexpr int kReadyFd = 3;
  android::base::unique_fd write_end;
  if (!android::base::Pipe(&ready_, &write_end)) return;
  std::vector<std::string> strings = {program, ready_flag, std::to_string(kReadyFd)};
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), kReadyFd);
  if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
    pid_ = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
}

HelperProcess::~HelperProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool HelperProcess::WaitReady(std::chrono::milliseconds timeout) {
  pollfd ready = {ready_.get(), POLLIN, 0};
  char answer[16] = {};
  return pid_ > 0 && TEMP_FAILURE_RETRY(poll(&ready, 1, timeout.count())) == 1 &&
         TEMP_FAILURE_RETRY(read(ready_.get(), answer, sizeof(answer) - 1)) > 0 &&
         std::string(answer) == "ready\n";
}

std::string Request::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (android::base::EqualsIgnoreCase(key, name)) return value;
  }
  return "(none)";
}

UpdateServer::UpdateServer(const std::vector<std::string>& args, const std::string& listen) {
  mkdir(kHarnessDir, 0755);
  unlink(kRequestLog);  // Each server starts a fresh record.
  std::vector<std::string> all = {"--listen", listen, "--log", kRequestLog};
  all.insert(all.end(), args.begin(), args.end());
  process_ = std::make_unique<HelperProcess>(UPDATE_SERVER_BIN, all, "--ready-fd");
  ok_ = process_->WaitReady();
}

void UpdateServer::Unthrottle() {
  kill(process_->pid(), SIGUSR1);
}

std::vector<Request> UpdateServer::requests() const {
  std::vector<Request> requests;
  for (const std::string& line : android::base::Split(ReadFile(kRequestLog), "\n")) {
    if (line.empty()) continue;
    std::unique_ptr<cJSON, void (*)(cJSON*)> entry(cJSON_Parse(line.c_str()), cJSON_Delete);
    if (!entry) {
      ADD_FAILURE() << "request log line is not JSON: " << line;
      continue;
    }
    auto text = [&](const char* name) {
      const char* value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(entry.get(), name));
      return std::string(value ? value : "");
    };
    const double t = cJSON_GetNumberValue(cJSON_GetObjectItemCaseSensitive(entry.get(), "t"));
    Request request{text("method"),
                    text("path"),
                    text("host"),
                    text("local"),
                    {},
                    text("body"),
                    text("query"),
                    t,
                    text("wall")};
    const cJSON* pair;
    cJSON_ArrayForEach(pair, cJSON_GetObjectItemCaseSensitive(entry.get(), "headers")) {
      request.headers.emplace_back(cJSON_GetStringValue(cJSON_GetArrayItem(pair, 0)),
                                   cJSON_GetStringValue(cJSON_GetArrayItem(pair, 1)));
    }
    requests.push_back(std::move(request));
  }
  return requests;
}

namespace {

constexpr char kNginxPrefix[] = "/tmp/harness/nginx";
// How long nginx's master may take to end after it was told to stop.
constexpr auto kNginxStopTimeout = 10s;

// Returns true while process |pid| runs; a zombie has ended (it holds no socket any more).
bool Running(pid_t pid) {
  if (kill(pid, 0) != 0) return false;
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t name_end = stat.rfind(") ");
  return name_end == std::string::npos || stat.substr(name_end + 2, 1) != "Z";
}

}  // namespace

NginxMirror::NginxMirror() {
  mkdir(kHarnessDir, 0755);
  mkdir(kNginxPrefix, 0755);
  ok_ = system("PATH=\"$PATH:/usr/sbin\" nginx -q -p /tmp/harness/nginx -c " NGINX_MIRROR_CONF) == 0;
}

NginxMirror::~NginxMirror() {
  if (!ok_) return;
  // nginx's master ends after its worker, and with it the last socket on port 80.
  const pid_t master = atoi(ReadFile(std::string(kNginxPrefix) + "/nginx.pid").c_str());
  if (master <= 0 || kill(master, SIGTERM) != 0) {
    fprintf(stderr, "nginx mirror: cannot stop the master named in %s/nginx.pid\n", kNginxPrefix);
    return;
  }
  const auto give_up = std::chrono::steady_clock::now() + kNginxStopTimeout;
  while (Running(master) && std::chrono::steady_clock::now() < give_up) usleep(10000);
  if (Running(master)) {
    fprintf(stderr, "nginx mirror: master %d still runs 10 s after SIGTERM\n", master);
  }
}

void ShapeLink(const std::string& rate, int resets) {
  ASSERT_EQ(0, system((std::string(SANDBOX_LINK) + " --rate " + rate + " --resets " +
                       std::to_string(resets))
                          .c_str()));
}

namespace {
std::mutex g_log_lock;
std::string g_log_text;
}  // namespace

LogCapture::LogCapture() {
  {
    std::lock_guard<std::mutex> guard(g_log_lock);
    g_log_text.clear();
  }
  android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  android::base::SetLogger([](android::base::LogId, android::base::LogSeverity severity,
                              const char*, const char*, unsigned int, const char* message) {
    std::lock_guard<std::mutex> guard(g_log_lock);
    g_log_text += std::string(1, "VDIWEF?"[severity]) + ":" + message + "\n";
  });
}

LogCapture::~LogCapture() {
  android::base::SetLogger(android::base::StderrLogger);
}

std::string LogCapture::text() const {
  std::lock_guard<std::mutex> guard(g_log_lock);
  return g_log_text;
}

void SandboxTest::SetUp() {
  RequireSandbox();
  props_.Set("ro.bootimage.name", "yonda");
  props_.Set("ro.build.tags", "release-keys");
  setenv("BUNDLERUN_PROPERTIES", props_.path().c_str(), 1);
}

std::unique_ptr<bundlerun_parent::Child> SandboxTest::StartStage(
    const std::string& stage, const std::vector<std::string>& args) {
  auto child = bundlerun_parent::Child::StartStage(BUNDLERUN_BIN, stage, args, {props_.env()});
  EXPECT_NE(nullptr, child);
  return child;
}

std::unique_ptr<bundlerun_parent::Child> SandboxTest::StartCommand(const std::string& number) {
  auto child = bundlerun_parent::Child::StartCommand(BUNDLERUN_BIN, number, {props_.env()});
  EXPECT_NE(nullptr, child);
  return child;
}

void SandboxTest::UseFullDevice() {
  const std::pair<const char*, const char*> kDevice[] = {
      {"ro.build.version.incremental", "V816.0.1"},
      {"ro.talu.ui.version.name", "V14"},
      {"ro.build.version.release", "13"},
      {"ro.product.device", "yondaphone"},
      {"ro.ril.talu.imei", "860000000000001"},
      {"ro.product.locale", "en-US"},
      {"ro.carrier.name", "YondaTel"},
      {"ro.product.board", "yondaboard"},
      {"ro.debuggable", "0"},
      {"ro.serialno", "SN12345"},
      {"ro.secureboot.lockstate", "locked"},
      {"ro.sf.lcd_density", "440"},
      {"ro.rom.zone", "1"},
      {"ro.boot.slot_suffix", "_a"},
      {"ro.yonda.build.channel", "stable"},
  };
  for (const auto& [key, value] : kDevice) props_.Set(key, value);
}

void SandboxTest::Finish(bundlerun_parent::Child& child, std::chrono::milliseconds timeout) {
  int status = child.WaitForExit(timeout);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status << "\n"
                                                             << child.out() << "\n"
                                                             << child.err();
}

void SandboxTest::Serve(std::vector<std::string> args, const std::string& listen) {
  server_.reset();
  args.insert(args.begin(), {"--packages", kMirrorDir});
  server_ = std::make_unique<UpdateServer>(args, listen);
  ASSERT_TRUE(server_->ok());
}

std::unique_ptr<bundlerun_parent::Child> SandboxTest::StartRaw(
    const std::vector<std::string>& args) {
  auto child = bundlerun_parent::Child::StartRaw(BUNDLERUN_BIN, args, {props_.env()});
  EXPECT_NE(nullptr, child);
  return child;
}

std::unique_ptr<bundlerun_parent::Child> SandboxTest::RunRaw(const std::vector<std::string>& args) {
  auto child = StartRaw(args);
  Finish(*child);
  return child;
}

}  // namespace harness

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// What the tests share: the sandbox check, the property file, helper processes (servers), log
// capture for in-process tests, and starting bundlerun the way the front end does.

#pragma once

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bundlerun_child.h"

namespace harness {

using namespace std::chrono_literals;

constexpr char kHarnessDir[] = "/tmp/harness";
// Where the local update server's package mirror serves files from.
constexpr char kMirrorDir[] = "/tmp/harness/mirror";

// Ends the test process unless it runs inside tests/sandbox/run: the tests write the device's
// fixed paths and start servers on port 80.
void RequireSandbox();

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
bool Exists(const std::string& path);
// Returns what the shell command |command| writes on standard output.
std::string Output(const std::string& command);
// Returns the lower-case MD5 of |path|, computed by the md5sum tool.
std::string Md5Sum(const std::string& path);

// The device's properties, as the file that BUNDLERUN_PROPERTIES names.
class PropertyFile {
 public:
  explicit PropertyFile(std::string path = std::string(kHarnessDir) + "/build.prop");
  void Set(const std::string& key, const std::string& value);
  void Remove(const std::string& key);
  const std::string& path() const { return path_; }
  std::string env() const { return "BUNDLERUN_PROPERTIES=" + path_; }

 private:
  void Write() const;
  std::string path_;
  std::map<std::string, std::string> values_;
};

// Returns |program| as the start of a shell command: behind the emulator that the parent library
// starts programs through, when the build runs emulated.
std::string ShellProgram(const std::string& program);

// Replaces /etc/hosts of this sandbox with |content|.
void BindHosts(const std::string& content);

// A helper process (a server) that is killed when this goes away. It is started with
// |ready_flag| and the number of a pipe on which it says when it is ready.
class HelperProcess {
 public:
  HelperProcess(const std::string& program, const std::vector<std::string>& args,
                const std::string& ready_flag);
  ~HelperProcess();
  // Waits until the process said it is ready; false when it ended or |timeout| passed first.
  bool WaitReady(std::chrono::milliseconds timeout = 10s);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  android::base::unique_fd ready_;
};

// One request as the update server logged it.
struct Request {
  std::string method;
  std::string path;
  std::string host;
  std::string local;  // the address the connection arrived at
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::string query;  // the deciphered update query, for the update endpoint
  double t = 0;       // seconds since the server started
  std::string wall;   // when it was received, ISO 8601 in UTC
  // Returns the value of header |name| (case-insensitive), or "(none)".
  std::string header(const std::string& name) const;
};

// The local update server on 127.0.0.1:80 of this sandbox, logging to kRequestLog.
class UpdateServer {
 public:
  static constexpr char kRequestLog[] = "/tmp/harness/requests.log";
  explicit UpdateServer(const std::vector<std::string>& args,
                        const std::string& listen = "127.0.0.1:80");
  bool ok() const { return ok_; }
  // Serves every package body unthrottled from now on, those under way included.
  void Unthrottle();
  // Every request received so far, in order.
  std::vector<Request> requests() const;

 private:
  std::unique_ptr<HelperProcess> process_;
  bool ok_ = false;
};

// A standard web server (nginx) as the package mirror: kMirrorDir on 127.0.0.2:80, with the
// configuration the build wrote. Stopped when this goes away, which returns once nginx has ended
// (port 80 is free again).
class NginxMirror {
 public:
  NginxMirror();
  ~NginxMirror();
  // True once it listens (nginx's launcher returns when its socket is open).
  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

// Shapes this sandbox's loopback to |rate| and breaks the first |resets| connections that carry
// a package body (tests/sandbox/link).
void ShapeLink(const std::string& rate, int resets);

// Collects the log records of in-process code as "<letter>:<message>\n" lines.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::string text() const;
};

// A test that runs in the sandbox with a fresh property file describing a release build in the
// update boot environment.
class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override;

  // Starts a stage with the property file in its environment.
  std::unique_ptr<bundlerun_parent::Child> StartStage(const std::string& stage,
                                                      const std::vector<std::string>& args = {});
  std::unique_ptr<bundlerun_parent::Child> StartCommand(const std::string& number);
  std::unique_ptr<bundlerun_parent::Child> StartRaw(const std::vector<std::string>& args);
  // Runs bundlerun with exactly |args| to its end, checking that it exited with status 0.
  std::unique_ptr<bundlerun_parent::Child> RunRaw(const std::vector<std::string>& args);
  // Sets the properties of a complete device (every fact of the update query).
  void UseFullDevice();
  // Runs |child| to its end and checks that it exited with status 0.
  static void Finish(bundlerun_parent::Child& child,
                     std::chrono::milliseconds timeout = std::chrono::seconds(90));
  // Starts the local update server with its package mirror on kMirrorDir and |args|, in place of
  // the one before (port 80 must be free for it).
  void Serve(std::vector<std::string> args, const std::string& listen = "127.0.0.1:80");

  PropertyFile props_;
  std::unique_ptr<UpdateServer> server_;
};

}  // namespace harness

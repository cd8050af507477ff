/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun-ui through a whole update against the local server: plain lines for scripts, the
// record of a run (JSON stream, stamped log, picture), and the live terminal display driven with
// keys in tmux.

#include <android-base/strings.h>
#include <cJSON.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using namespace std::chrono_literals;
using harness::ReadFile;
using harness::WriteFile;

constexpr char kRomZip[] = "/tmp/harness/mirror/base/V2.0/rom.zip";
constexpr char kUiLog[] = "/tmp/harness/ui.log";
constexpr char kReport[] = "/tmp/harness/report.svg";

class FrontendTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    UseFullDevice();
    ASSERT_EQ(0, system("mkdir -p /tmp/harness/mirror/base/V2.0"));
  }

  // Makes a sample ROM of |mib| MiB and serves it; |md5| overrides the digest the answer gives.
  void ServeRom(int mib, const std::vector<std::string>& extra = {}, std::string md5 = "") {
    ASSERT_EQ(
        0,
        system(
            (std::string(SAMPLE_ROM_MAKER) + " --size " + std::to_string(mib) + " " + kRomZip)
                .c_str()));
    if (md5.empty()) md5 = harness::Md5Sum(kRomZip);
    WriteFile("/tmp/harness/answer.json",
              R"({"LatestRom":{"version":"V2.0","filename":"rom.zip","filesize":")" +
                  std::to_string(mib) + R"(M","md5":")" + md5 +
                  R"(","Validate":"v"},"CurrentRom":{"version":"V1.0"},"MirrorList":)"
                  R"(["https://secure.yonda.example/base","http://mirror.yonda.example/base"]})");
    std::vector<std::string> args = {"--answer", "/tmp/harness/answer.json"};
    args.insert(args.end(), extra.begin(), extra.end());
    Serve(args);
  }

  // Runs bundlerun-ui in plain mode to its end; returns its exit status.
  int RunPlain(std::vector<std::string> args, std::string* out) {
    args.insert(args.begin(), {"--plain", "--log", kUiLog});
    auto ui = bundlerun_parent::Child::StartRaw(UI_BIN, args);
    int status = ui->WaitForExit(120s);
    *out = ui->out();
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status);
  }
};

TEST_F(FrontendTest, PlainModeRunsAWholeUpdateAndRefusesAWrongPackageOrAnEmptyOne) {
  struct Case {
    const char* md5;  // "": the package's own
    bool empty;       // the mirror serves an empty file
    int exit_status;
    std::vector<std::string> lines;
    const char* never;
  } cases[] = {
      {"",
       false,
       0,
       {"stage1: clock set from the update server (0:s)\n",
        "stage1: a ROM is offered, its package address answered (2:s:0)\n",
        "rom: size 4.0 MiB (4194304 bytes)\n",
        "rom: mirror 0 https://secure.yonda.example/base  (skipped: https)\n",
        "rom: mirror 1 http://mirror.yonda.example/base  <- chosen\n",
        "stage2: downloading http://mirror.yonda.example/base/V2.0/rom.zip (mirror 1)",
        "verify: package intact: MD5 ", "install: [2/3] Writing the system image\n",
        "install: Install complete\n", "install: installer finished\n", "done: update finished\n"},
       "NOT match"},
      {"0123456789abcdef0123456789abcdef",
       false,
       2,
       {"verify: package does NOT match the ROM: MD5 ",
        ", the ROM says 0123456789abcdef0123456789abcdef\n"},
       "install:"},
      // A transfer that brings nothing ends the download: bundlerun does not try again.
      {"",
       true,
       1,
       {"stage2: download failed: the transfer completed with nothing received (3:f:52)\n",
        "stage2: received 0 B in ", "; 0 retries, 0 redirects, 0 pauses\n",
        "done: update did not finish\n"},
       "retry"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.exit_status);
    ServeRom(4, {}, c.md5);
    if (c.empty) WriteFile(kRomZip, "");
    std::string out;
    EXPECT_EQ(c.exit_status, RunPlain({"--report", kReport}, &out)) << out;
    size_t at = 0;
    for (const std::string& line : c.lines) {
      at = out.find(line, at);
      ASSERT_NE(std::string::npos, at) << line << " in\n" << out;
    }
    EXPECT_EQ(std::string::npos, out.find(c.never)) << out;
    // A run that fails leaves its picture too.
    EXPECT_NE(std::string::npos,
              ReadFile(kReport).find("(exit status " + std::to_string(c.exit_status) + ")"));
    if (c.exit_status != 0) continue;
    // An unthrottled local mirror is done before bundlerun's first speed line: the speed shown
    // comes from the package file's growth.
    const size_t done = out.find("stage2: 100% 4.0 MiB of 4.0 MiB at ");
    ASSERT_NE(std::string::npos, done) << out;
    const std::string done_line = out.substr(done, out.find('\n', done) - done);
    EXPECT_EQ(std::string::npos, done_line.find(" at 0 B/s")) << done_line;
    EXPECT_TRUE(android::base::EndsWith(done_line, ", 0:00 left")) << done_line;
    // The log holds bundlerun's own lines, section by section.
    const std::string log = ReadFile(kUiLog);
    EXPECT_NE(std::string::npos, log.find("] ===== Stage two: download =====\n"));
    EXPECT_NE(std::string::npos, log.find("] I:Bye bye, RUN_UPDATER\n"));
  }
}

// Returns member |name| of |event| as compact JSON ("\"0:s\"", "2", "true"), or "" without it.
std::string Member(const cJSON* event, const char* name) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(event, name);
  if (item == nullptr) return "";
  std::unique_ptr<char, decltype(&free)> text(cJSON_PrintUnformatted(item), free);
  return text.get();
}

double Number(const cJSON* event, const char* name) {
  return cJSON_GetNumberValue(cJSON_GetObjectItemCaseSensitive(event, name));
}

// Returns the width and height of the PNG image |png|, from its header.
std::pair<uint32_t, uint32_t> PngSize(const std::string& png) {
  if (png.size() < 24 || png.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0) return {0, 0};
  auto at = [&](size_t i) {
    return static_cast<uint32_t>(static_cast<unsigned char>(png[i])) << 24 |
           static_cast<unsigned char>(png[i + 1]) << 16 |
           static_cast<unsigned char>(png[i + 2]) << 8 | static_cast<unsigned char>(png[i + 3]);
  };
  return {at(16), at(20)};
}

TEST_F(FrontendTest, RecordsAWholeUpdateAsJsonAStampedLogAndAPicture) {
  // The mirror sends the package to another address once, cuts its first two transfers there,
  // and sends 6 MiB at 2 MiB/s: long enough for a pause of a second.
  ServeRom(6, {"--rate", "2097152", "--drop-after", "1048576", "--drop-times", "2", "--redirect",
               "/base/V2.0/rom.zip=http://mirror.yonda.example/moved/V2.0/rom.zip?from=base&n=1"});
  ASSERT_EQ(0, system((std::string("mkdir -p /tmp/harness/mirror/moved/V2.0 && cp ") + kRomZip +
                       " /tmp/harness/mirror/moved/V2.0/")
                          .c_str()));
  // The picture of an earlier run stays whole until this run's is.
  WriteFile(kReport, "<svg/>");
  auto ui = bundlerun_parent::Child::StartWithInput(
      UI_BIN, {"--json", "--log", kUiLog, "--report", kReport});
  ASSERT_NE(nullptr, ui);

  // The test is the person at the keys: "p" a third of the way, "c" a second after the pause.
  std::vector<std::unique_ptr<cJSON, void (*)(cJSON*)>> events;
  size_t seen = 0;
  double paused_at = -1;
  bool pause_sent = false;
  bool continue_sent = false;
  auto take = [&] {
    size_t end;
    while ((end = ui->out().find('\n', seen)) != std::string::npos) {
      const std::string line = ui->out().substr(seen, end - seen);
      seen = end + 1;
      events.emplace_back(cJSON_Parse(line.c_str()), cJSON_Delete);
      ASSERT_TRUE(events.back()) << "not JSON: " << line;
      const cJSON* e = events.back().get();
      const std::string kind = Member(e, "event");
      if (!pause_sent && kind == "\"progress\"" && Number(e, "percent") >= 30) {
        pause_sent = ui->SendCommand("p\n");
      }
      if (kind == "\"paused\"") {
        paused_at = Number(e, "t");
        EXPECT_EQ("<svg/>", ReadFile(kReport));
      }
      if (paused_at >= 0 && !continue_sent && Number(e, "t") >= paused_at + 1) {
        continue_sent = ui->SendCommand("c\n");
      }
    }
  };
  const auto deadline = std::chrono::steady_clock::now() + 120s;
  while (ui->running() && std::chrono::steady_clock::now() < deadline) {
    ui->Pump(100ms);
    ASSERT_NO_FATAL_FAILURE(take());
  }
  const int status = ui->WaitForExit(30s);
  ASSERT_NO_FATAL_FAILURE(take());
  WriteFile(std::string(TEST_ARTIFACTS_DIR) + "/bundlerun-ui.json", ui->out());
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << ui->err();
  EXPECT_EQ(seen, ui->out().size()) << "every line ends with a line feed";

  // The events in order, each with its time, stage and kind; the ones that tell the story with
  // what they say.
  struct Expected {
    const char* event;
    const char* stage;
    const char* member;
    const char* value;
  } expected[] = {
      {"start", "ui", "args",
       "[\"--json\",\"--log\",\"/tmp/harness/ui.log\",\"--report\","
       "\"/tmp/harness/report.svg\"]"},
      {"task", "stage1", "status", "\"0:s\""},
      {"task", "stage1", "status", "\"1:s\""},
      {"task", "stage1", "status", "\"2:s:0\""},
      {"rom", "rom", "size", "6291456"},
      {"mirror", "stage2", "url", "\"http://mirror.yonda.example/base/V2.0/rom.zip\""},
      {"redirect", "stage2", "url",
       "\"http://mirror.yonda.example/moved/V2.0/rom.zip?from=base&n=1\""},
      {"command", "stage2", "command", "\"p\""},
      {"paused", "stage2", "status", "\"3:r:p\""},
      {"command", "stage2", "command", "\"c\""},
      {"continued", "stage2", "status", "\"3:r:c\""},
      {"task", "stage2", "name", "\"download\""},
      {"download", "stage2", "outcome", "\"complete\""},
      {"verdict", "verify", "ok", "true"},
      {"installer", "install", "text", "\"Install complete\""},
      {"install", "install", "ok", "true"},
      {"result", "done", "status", "0"},
  };
  size_t next = 0;
  double t = 0;
  double last_progress = -1;
  int paused_progress = 0;
  std::vector<const cJSON*> retries;
  const cJSON* download = nullptr;
  for (const auto& owned : events) {
    const cJSON* e = owned.get();
    SCOPED_TRACE(Member(e, "t") + " " + Member(e, "event"));
    EXPECT_GE(Number(e, "t"), t);
    t = Number(e, "t");
    const std::string kind = Member(e, "event");
    ASSERT_NE("", Member(e, "stage"));
    if (next < std::size(expected) && kind == std::string("\"") + expected[next].event + "\"" &&
        Member(e, expected[next].member) == expected[next].value) {
      EXPECT_EQ(std::string("\"") + expected[next].stage + "\"", Member(e, "stage"));
      ++next;
    }
    if (kind == "\"retry\"") retries.push_back(e);
    if (kind == "\"download\"") download = e;
    if (kind != "\"progress\"") continue;
    // At most a few progress lines a second (the last comes when the download ends), and none
    // says a speed or a time left while paused.
    if (Member(e, "state") != "\"complete\"") {
      EXPECT_GE(t - last_progress, 0.45);
    }
    last_progress = t;
    if (Member(e, "state") == "\"paused\"") {
      ++paused_progress;
      EXPECT_EQ("null", Member(e, "speed"));
      EXPECT_EQ("null", Member(e, "eta"));
    }
  }
  EXPECT_GE(paused_progress, 1);
  EXPECT_EQ(std::size(expected), next)
      << "missing: " << expected[std::min(next, std::size(expected) - 1)].event;
  EXPECT_EQ("\"result\"", Member(events.back().get(), "event"));
  ASSERT_EQ(2u, retries.size());
  for (const cJSON* retry : retries) {
    EXPECT_TRUE(android::base::StartsWith(Member(retry, "status"), "\"3:f:"))
        << Member(retry, "status");
  }
  ASSERT_NE(nullptr, download);
  EXPECT_EQ("6291456", Member(download, "bytes"));
  EXPECT_EQ("2", Member(download, "retries"));
  EXPECT_EQ("1", Member(download, "redirects"));
  EXPECT_EQ("1", Member(download, "pauses"));
  EXPECT_GE(Number(download, "paused"), 1);

  // Every line of the log is stamped, the stamps never go back, and the run starts with its header.
  // The log says when a command was sent and when bundlerun acknowledged it.
  const std::string log_text = ReadFile(kUiLog);
  const size_t sent = log_text.find("] ui stage2: sent \"p\" (input)\n");
  EXPECT_NE(std::string::npos, sent);
  EXPECT_NE(std::string::npos, log_text.find("] ui stage2: paused (3:r:p)\n", sent));
  const std::vector<std::string> log = android::base::Split(log_text, "\n");
  ASSERT_GT(log.size(), 10u);
  EXPECT_TRUE(android::base::StartsWith(log[0], "[    0.0")) << log[0];
  EXPECT_NE(std::string::npos, log[0].find(" bundlerun-ui ")) << log[0];
  EXPECT_NE(
      std::string::npos,
      log[0].find(" --json --log /tmp/harness/ui.log --report /tmp/harness/report.svg running " +
                  std::string(BUNDLERUN_BIN) + " ====="))
      << log[0];
  double stamp = 0;
  for (size_t i = 0; i + 1 < log.size(); ++i) {
    const std::string& line = log[i];
    ASSERT_TRUE(line.size() >= 15 && line[0] == '[' && line[13] == ']' && line[14] == ' ') << line;
    char* end = nullptr;
    const double now = strtod(line.c_str() + 1, &end);
    ASSERT_EQ(line.c_str() + 13, end) << line;
    EXPECT_GE(now, stamp) << line;
    stamp = now;
  }
  EXPECT_EQ("", log.back());

  // The server's request log is stamped the same way, with its wall-clock time.
  double served = 0;
  for (const harness::Request& request : server_->requests()) {
    EXPECT_GE(request.t, served) << request.path;
    served = request.t;
    EXPECT_EQ(27u, request.wall.size()) << request.wall;
    EXPECT_EQ('T', request.wall[10]);
    EXPECT_EQ('Z', request.wall.back());
  }

  // The picture renders, at its size, and is more than an empty page.
  const std::string svg = ReadFile(kReport);
  for (const char* label : {">retry<", ">redirect<", ">pause<", ">continue<", "package intact"}) {
    EXPECT_NE(std::string::npos, svg.find(label)) << label;
  }
  const std::string png = std::string(TEST_ARTIFACTS_DIR) + "/bundlerun-ui-report.png";
  WriteFile(std::string(TEST_ARTIFACTS_DIR) + "/bundlerun-ui-report.svg", svg);
  ASSERT_EQ(0, system(("rsvg-convert -o " + png + " " + kReport).c_str()));
  const auto [width, height] = PngSize(ReadFile(png));
  EXPECT_EQ(1000u, width);
  ASSERT_GT(height, 400u);
  WriteFile("/tmp/harness/blank.svg",
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"1000\" height=\"" +
                std::to_string(height) +
                "\"><rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/></svg>");
  ASSERT_EQ(0, system("rsvg-convert -o /tmp/harness/blank.png /tmp/harness/blank.svg"));
  // A page of one colour compresses to almost nothing; the picture does not.
  EXPECT_GT(ReadFile(png).size(), 8 * ReadFile("/tmp/harness/blank.png").size());
}

// Returns what tmux shows in the front end's pane.
std::string Screen() {
  return harness::Output("tmux capture-pane -p -t ui");
}

bool WaitForScreen(const std::string& text, std::chrono::seconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (Screen().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

// A phone's link that breaks twice. The update server serves the rest of what the device holds,
// so the package comes whole on the first download; a standard mirror serves the whole file on
// every request, so the package comes too long, and the front end downloads it again.
TEST_F(FrontendTest, WholeUpdateOverAShapedLinkThatBreaksTwice) {
  struct Case {
    const char* mirror;
    std::vector<std::string> lines;  // in this order
    int downloads;
  } cases[] = {
      {"update server",
       {"stage2: transfer failed (libcurl 56, ", ", retry 2\n",
        "verify: package intact: MD5 ", "install: installer finished\n"},
       1},
      {"nginx",
       {", retry 2\n", "verify: package does NOT match the ROM: MD5 ",
        "verify: removed the package; downloading it again (1 of 1)\n",
        "stage2: downloading http://mirror.yonda.example/base/V2.0/rom.zip",
        "verify: package intact: MD5 ", "install: installer finished\n"},
       2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mirror);
    system("rm -rf /tmp/secure_update.zip /tmp/download /cache/yonda");
    harness::ShapeLink("20mbit", 2);
    std::unique_ptr<harness::NginxMirror> nginx;
    if (std::string(c.mirror) == "nginx") {
      harness::BindHosts("127.0.0.1 localhost " TEST_UPDATE_HOST "\n"
                         "127.0.0.2 mirror.yonda.example secure.yonda.example\n");
      nginx = std::make_unique<harness::NginxMirror>();
      ASSERT_TRUE(nginx->ok());
      ServeRom(9);
    } else {
      ServeRom(9, {"--remainder-of", "/tmp/secure_update.zip"});
    }
    std::string out;
    EXPECT_EQ(0, RunPlain({}, &out)) << out;
    size_t at = 0;
    for (const std::string& line : c.lines) {
      at = out.find(line, at);
      ASSERT_NE(std::string::npos, at) << line << " in\n" << out;
    }
    EXPECT_EQ(std::string::npos, out.find(", retry 3\n")) << out;
    EXPECT_EQ(harness::Md5Sum(kRomZip), harness::Md5Sum("/tmp/secure_update.zip"));
    size_t downloads = 0;
    for (size_t p = out.find("stage2: downloading"); p != std::string::npos;
         p = out.find("stage2: downloading", p + 1)) {
      ++downloads;
    }
    EXPECT_EQ(static_cast<size_t>(c.downloads), downloads) << out;
    if (c.downloads > 1) {
      EXPECT_NE(std::string::npos,
                ReadFile(kUiLog).find(
                    "] ui verify: removed the package; downloading it again (1 of 1)\n"));
    }
  }
}

TEST_F(FrontendTest, TerminalModeFitsTheBarToEightyColumnsAndObeysKeys) {
  ServeRom(8, {"--rate", "1048576"});
  const std::string command = std::string("tmux new-session -d -s ui -x 80 -y 45 '") +
                              harness::ShellProgram(UI_BIN) + " --log " + kUiLog +
                              "; echo EXIT:$?; sleep 600'";
  ASSERT_EQ(0, system(command.c_str()));
  // Returns the bar's line once it shows |hint|, whole within the width.
  auto bar = [](const std::string& hint) {
    EXPECT_TRUE(WaitForScreen(hint, 60s)) << Screen();
    for (const std::string& line : android::base::Split(Screen(), "\n")) {
      if (line.find(hint) != std::string::npos) return line;
    }
    return std::string();
  };
  // While downloading: the percent, the size, the speed, the elapsed time, the time left, the
  // state and the keys.
  ASSERT_TRUE(WaitForScreen(" ETA ", 60s)) << Screen();
  const std::string running = bar(" downloading [p]ause [s]top");
  EXPECT_LT(running.size(), 80u) << running;
  EXPECT_TRUE(std::regex_match(
      running,
      std::regex(R"( +\d+% [.\d]+ (?:[KM]i)?B [.\d]+ (?:[KM]i)?B/s elapsed \d+:\d\d ETA \d+:\d\d)"
                 R"( downloading \[p\]ause \[s\]top)")))
      << running;
  ASSERT_EQ(0, system("tmux send-keys -t ui p"));
  // No speed and no time left while paused.
  const std::string paused = bar("  paused  [c]ontinue [s]top");
  EXPECT_NE(std::string::npos, paused.find("  elapsed 0:")) << paused;
  EXPECT_EQ(std::string::npos, paused.find("B/s")) << paused;
  EXPECT_EQ(std::string::npos, paused.find("ETA")) << paused;
  ASSERT_EQ(0, system("tmux send-keys -t ui s"));
  EXPECT_TRUE(WaitForScreen("EXIT:", 30s)) << Screen();

  const std::string screen = Screen();
  WriteFile(std::string(TEST_ARTIFACTS_DIR) + "/bundlerun-ui-terminal.txt", screen);
  system("tmux kill-server");
  EXPECT_NE(std::string::npos, screen.find("download stopped at ")) << screen;
  EXPECT_NE(std::string::npos, screen.find("EXIT:4")) << screen;
  EXPECT_NE(std::string::npos, ReadFile(kUiLog).find("E:---->receive command: p\n"));
}

}  // namespace

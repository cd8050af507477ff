/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The first stage and the command mode's prefixes of the task chain against the local update
// server: what the server does, which mode runs, the status bytes, the key log lines, the requests
// and the files left behind.

#include <android-base/properties.h>
#include <android-base/strings.h>
#include <cJSON.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using harness::Exists;
using harness::ReadFile;
using harness::WriteFile;

constexpr char kAnswerPath[] = "/tmp/harness/answer.json";
constexpr char kPackage[] = "/tmp/harness/mirror/base/V2.0/rom.zip";
constexpr char kRom[] = "/tmp/download/LatestRom/";
constexpr char kEvent[] = "/tmp/dgq/events/download_status";
constexpr char kReady[] = "property yonda.timesync.ready";
constexpr char kAbsent[] = "(absent)";
constexpr char kHas[] = "(has)";  // prefix of an expected content: the file contains the rest

constexpr char kOffer[] = R"({
  "LatestRom": {"version": "V2.0", "filename": "rom.zip", "filesize": "1M",
                "md5": "b6d81b360a5672d80c27430f39153e2c", "Validate": "signed"},
  "CurrentRom": {"version": "V1.0"},
  "MirrorList": ["https://secure.yonda.example", "http://mirror.yonda.example/base"]
})";

const std::string kDenied = " 0 1 Operation not permitted\n";  // setting the clock in the sandbox

struct Row {
  const char* name;
  std::string run;                  // a stage ("--first_stage") or a command number
  std::vector<std::string> server;  // extra server arguments; {"none"}: nothing listens
  std::string answer;               // "": the offer
  std::string status;               // the exact status bytes of a stage
  std::vector<std::string> out;     // texts on standard output, in this order
  std::string requests;  // one letter per request: T time, I time (international), Q query,
                         // P probe, G package
  // Path (relative: in the ROM directory; kReady: the property) and content; kAbsent, or kHas
  // and a text the content holds.
  std::map<std::string, std::string> files = {};
  std::map<std::string, std::string> props = {};  // set before the run
  std::string listen = "127.0.0.1:80";
};

// Returns the hexadecimal digest that |tool| prints for |text|, cut where the device cuts it: at
// the first zero byte.
std::string DeviceDigest(const std::string& tool, const std::string& text) {
  const std::string line = harness::Output("printf %s '" + text + "' | " + tool);
  const std::string digest = line.substr(0, line.find_first_not_of("0123456789abcdef"));
  for (size_t i = 0; i + 1 < digest.size(); i += 2) {
    if (digest.compare(i, 2, "00") == 0) return digest.substr(0, i);
  }
  return digest;
}

// Returns the string members of a query document, "options" members as "options.<name>".
std::map<std::string, std::string> Members(const std::string& text) {
  std::map<std::string, std::string> members;
  std::unique_ptr<cJSON, void (*)(cJSON*)> doc(cJSON_Parse(text.c_str()), cJSON_Delete);
  if (!doc) return members;
  for (const cJSON* item = doc->child; item != nullptr; item = item->next) {
    if (cJSON_IsObject(item)) {
      for (const cJSON* o = item->child; o != nullptr; o = o->next) {
        members[std::string(item->string) + "." + o->string] = o->valuestring;
      }
    } else if (cJSON_IsString(item)) {
      members[item->string] = item->valuestring;
    }
  }
  return members;
}

class StageTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(0, system("mkdir -p /tmp/harness/mirror/base/V2.0 && head -c 1048576 /dev/urandom "
                        "> /tmp/harness/mirror/base/V2.0/rom.zip"));
  }

  // Serves |answer| with the package mirror and |extra| arguments; {"none"}: nothing listens.
  void ServeAnswer(const std::string& answer, std::vector<std::string> extra = {},
                   const std::string& listen = "127.0.0.1:80") {
    server_.reset();  // Port 80 must be free for the next one.
    if (extra == std::vector<std::string>{"none"}) return;
    WriteFile(kAnswerPath, answer);
    extra.insert(extra.begin(), {"--answer", kAnswerPath});
    Serve(extra, listen);
  }

  std::unique_ptr<bundlerun_parent::Child> Run(const std::string& run) {
    auto child = android::base::StartsWith(run, "--") ? StartStage(run) : StartCommand(run);
    Finish(*child);
    return child;
  }

  // Returns one letter per request the server received (see Row::requests).
  std::string Requests() {
    const std::map<std::string, char> letters = {
        {std::string("HEAD ") + TEST_UPDATE_HOST + " /", 'T'},
        {std::string("HEAD ") + TEST_INTL_UPDATE_HOST + " /", 'I'},
        {std::string("POST ") + TEST_UPDATE_HOST + " /updates/zeotaV3.php", 'Q'},
        {"HEAD mirror.yonda.example /base/V2.0/rom.zip", 'P'},
        {"GET mirror.yonda.example /base/V2.0/rom.zip", 'G'}};
    std::string seen;
    for (const harness::Request& r :
         server_ ? server_->requests() : std::vector<harness::Request>{}) {
      const auto letter = letters.find(r.method + " " + r.host + " " + r.path);
      seen += letter == letters.end() ? '?' : letter->second;
    }
    return seen;
  }

  // Runs |row| on a device that has only a version among the facts of the update query, from an
  // empty scratch and persistent tree.
  void Check(const Row& row) {
    SCOPED_TRACE(row.name);
    system("rm -rf /tmp/download /tmp/dgq /cache/yonda /cache/tmp/* /tmp/secure_update.zip");
    props_ = harness::PropertyFile();
    SandboxTest::SetUp();
    props_.Set("ro.build.version.incremental", "V816.0.1");
    for (const auto& [key, value] : row.props) props_.Set(key, value);
    ServeAnswer(row.answer.empty() ? kOffer : row.answer, row.server, row.listen);
    auto child = Run(row.run);
    if (android::base::StartsWith(row.run, "--")) {
      EXPECT_EQ(row.status, child->status());
    }
    size_t at = 0;
    for (const std::string& text : row.out) {
      at = child->out().find(text, at);
      ASSERT_NE(std::string::npos, at) << text << " in\n" << child->out();
    }
    EXPECT_EQ(row.requests, Requests());
    for (const auto& [file, content] : row.files) {
      const std::string path = file[0] == '/' || file == kReady ? file : kRom + file;
      const std::string found = path == kReady
                                    ? android::base::GetProperty("yonda.timesync.ready", kAbsent)
                                : Exists(path) ? ReadFile(path)
                                               : kAbsent;
      if (android::base::StartsWith(content, kHas)) {
        EXPECT_NE(std::string::npos, found.find(content.substr(strlen(kHas)))) << path;
      } else {
        EXPECT_EQ(content, found) << path;
      }
    }
  }
};

TEST_F(StageTest, EachModeEndsWithItsStatusLinesAndFiles) {
  const std::string md5 = harness::Md5Sum(kPackage);
  std::string huge = R"({"LatestRom":{"version":"V2.0","filename":"rom.zip"},"MirrorList":[)";
  for (int i = 0; i < 20000; ++i) huge += "\"https://m" + std::to_string(i) + ".example\",";
  huge += "\"http://mirror.yonda.example/base\"]}";
  const std::string ok = "0:s\n1:s\n2:s:0";
  const std::string none = "0:s\n1:s\n2:s:2";
  const std::string date = "Sun, 06 Nov 1994 08:49:37 GMT";
  // clang-format off
  const Row rows[] = {
      // The server time task alone: the clock comes from the last header line naming Date.
      {"the last Date line sets the clock", "0",
       {"--date", date, "--header", "Date: Mon, 07 Nov 1994 08:49:37 GMT"}, "", "",
       {"\n784198177" + kDenied, "\n0:s\n"}, "T",
       {{kReady, "1"}, {kEvent, "0"}, {"/tmp/download/status", "SyncServerTime"},
        {"/cache/yonda/time", std::string(kHas) + "Date: Mon, 07 Nov 1994 08:49:37 GMT\r\n"}}},
      {"no Date sets the epoch", "0", {"--no-date"}, "", "", {"\n0" + kDenied, "\n0:s\n"}, "T",
       {{kReady, "1"}}},
      // "X-Date-Source" names Date too; its text from the seventh character does not parse.
      {"a header that merely contains Date", "0", {"--header", "X-Date-Source: " + date}, "", "",
       {"\n-1 0 22 Invalid argument\n", "\n0:s\n"}, "T"},
      {"nothing listens", "--first_stage", {"none"}, "", "0:f:7\n",
       {"E:in 0, function for 7 has not been registed\n"}, "",
       {{kEvent, "7"}, {kReady, kAbsent}, {"/tmp/download/status", kAbsent}}},
      {"server slower than five seconds", "--first_stage", {"--delay", "/=6500"}, "",
       "0:f:CURLE_OPERATION_TIMEDOUT\n", {}, "T", {{kEvent, "28"}}},
      // Answers without an offered ROM, and hostile answers.
      {"no LatestRom", "--first_stage", {}, R"({"CurrentRom":{"version":"V1.0"}})", none,
       {"I:>> No available rom to update!!\n"}, "TQ",
       {{"curr_version", "TALU-V816.0.1"}, {"version", "???"}}},
      {"null CurrentRom", "--first_stage", {}, R"({"LatestRom":[],"CurrentRom":null})", none, {},
       "TQ", {{"curr_version", "TALU-V816.0.1 (N/A)"}}},
      {"not JSON at all", "--first_stage", {}, "\x01\x02 this is not json", none, {}, "TQ",
       {{"version", "???"}}},
      {"offered ROM without keys", "--first_stage", {}, R"({"LatestRom":{}})", ok,
       {"E:update answer has no \"MirrorList\" array, no mirror laid out\n"}, "TQ",
       {{"version", kAbsent}}},
      {"non-string values", "--first_stage", {},
       R"({"LatestRom":{"version":2,"filename":["x"]},"MirrorList":[7,"http://b"]})", ok,
       {"E:update answer has no string \"version\", /tmp/download/LatestRom/version not written\n"},
       "TQ", {{"version", kAbsent}, {"0/host", kAbsent}, {"1/host", "http://b"}}},
      {"huge mirror list", "--first_stage", {}, huge, ok,
       {"E:update answer lists 20001 mirrors, only the first 100 are laid out\n"}, "TQ",
       {{"99/host", "https://m99.example"}, {"100", kAbsent}}},
      {"framed answer", "--first_stage", {"--frame"}, "", ok,
       {"I:>> Now we have V1.0\n", "I:>> Download ROM info:V2.0 - rom.zip, 1M\n",
        "D:>> MirrorList:2\n", "I:>> \t Mirror 1:http://mirror.yonda.example/base\n"},
       "TQP", {{"version", "V2.0"}}},
      // The query itself succeeded; there is just nothing to probe.
      {"broken base64", "--first_stage", {"--break-base64"}, "", ok,
       {"failed to use base64 to decode /cache/yonda/response.body\n"}, "TQ",
       {{"version", kAbsent}}},
      {"query slower than five seconds", "--first_stage", {"--delay", "/updates/zeotaV3.php=6500"},
       "", "0:s\n1:f:CURLE_OPERATION_TIMEDOUT\n", {}, "TQ", {{kEvent, "28"}}},
      {"outside the boot image the scratch tree and the package are under /cache", "3", {}, "",
       "", {"\n2:s:0", "\n3:c:" + md5 + "\n"}, "TQPG",
       {{"/cache/tmp/download/LatestRom/version", "V2.0"},
        {"/cache/tmp/secure_update.zip", ReadFile(kPackage)}, {"/tmp/secure_update.zip", kAbsent},
        {"/cache/yonda/download/CurrentRom", "LatestRom"},
        {"/cache/yonda/download/request.android.uncrypted", std::string(kHas) + "\"sid\""},
        {"/cache/tmp/dgq/events/download_status", "0"}, {"/tmp/download", kAbsent}},
       {{"ro.bootimage.name", "android"}}},
      // The command mode runs the chain up to the task its number names.
      {"a negative number runs the first task only", "-", {}, "", "", {"\n0:s\n"}, "T"},
      {"the probe", "2", {}, "", "", {"\n1:s\n", "\n2:s:0I:this is the last task, byebye\n"},
       "TQP"},
      {"numbers past the download stop there", "9", {}, "", "",
       {"\n2:s:0I:>> RomDownload is running...\n", "\n3:c:" + md5 + "\n",
        "I:3 is the last task, byebye\n"},
       "TQPG", {{"/tmp/secure_update.zip", ReadFile(kPackage)}}},
      {"a download without an offered ROM ends at once", "3", {},
       R"({"CurrentRom":{"version":"V1"}})", "",
       {"2:s:2I:>> RomDownload is running...\n"
        "E:>> RomDownload has no url info!! End the RomDownload\n3:f:3\n"},
       "TQ"},
  };
  // clang-format on
  for (const Row& row : rows) Check(row);
}

TEST_F(StageTest, UnknownUpdateHost) {
  harness::BindHosts("127.0.0.1 localhost\n");
  // The fixed address of an international build lives on this sandbox's loopback.
  ASSERT_EQ(0, system(("ip addr add " + std::string(TEST_FALLBACK_IPV4) + "/32 dev lo").c_str()));
  // clang-format off
  const Row rows[] = {
      {"a domestic build fails quietly", "--first_stage", {}, "", "",
       {std::string("E:operator()Could not resolve host: ") + TEST_UPDATE_HOST + "(6), retry\n"},
       "", {{kEvent, "6"}}},
      {"an international build is reached at the fixed address", "0", {}, "", "",
       {std::string("W:No hostent resolved, and try the fixed: ") + TEST_INTL_UPDATE_HOST +
            ":80:" + TEST_FALLBACK_IPV4 + "\n", "\n0:s\n"},
       "I", {}, {{"ro.yonda.build.international", "1"}}, "0.0.0.0:80"},
  };
  // clang-format on
  for (const Row& row : rows) Check(row);
}

TEST_F(StageTest, QueryCarriesTheDeviceFactsEnciphered) {
  UseFullDevice();
  ServeAnswer(kOffer);
  auto child = Run("--first_stage");
  EXPECT_EQ("0:s\n1:s\n2:s:0", child->status());
  std::vector<harness::Request> requests = server_->requests();
  ASSERT_EQ(3u, requests.size());
  for (const harness::Request& request : {requests[0], requests[1]}) {
    EXPECT_EQ("no-cache", request.header("Cache-Contorl"));
    EXPECT_EQ("application/x-www-form-urlencoded", request.header("Content-type"));
  }
  const harness::Request& query = requests[1];
  std::vector<std::string> fields = android::base::Split(query.body, "&");
  std::sort(fields.begin(), fields.end());
  ASSERT_EQ(3u, fields.size());
  EXPECT_TRUE(android::base::StartsWith(fields[0], "q=")) << query.body;
  EXPECT_EQ("s=1", fields[1]);
  EXPECT_EQ("t=", fields[2]);
  EXPECT_EQ(query.body, ReadFile("/tmp/download/request.encrypted"));
  EXPECT_EQ(query.query, ReadFile("/tmp/download/request.uncrypted"));
  EXPECT_NE(std::string::npos, query.query.find("\n\t\"v\":")) << query.query;  // formatted
  EXPECT_EQ((std::map<std::string, std::string>{
                {"v", "TALU-V816.0.1"},
                {"bv", "14"},
                {"c", "13"},
                {"d", "yondaphone"},
                {"i", DeviceDigest("sha256sum", "860000000000001")},
                {"b", "F"},
                {"l", "en-US"},
                {"r", "US"},
                {"n", "YondaTel"},
                {"p", "yondaboard"},
                {"isR", "0"},
                {"sn", "SN12345"},
                {"sys", "0"},
                {"unlock", "0"},
                {"dpi", "xxhdpi"},
                {"f", "1"},
                {"hashId", DeviceDigest("sha1sum", "860000000000001").substr(0, 16)},
                {"sid", "3001"},
                {"options.zone", "1"},
                {"options.ab", "1"},
                {"options.express", "0"},
            }),
            Members(query.query));

  const std::map<std::string, std::string> layout = {
      {"version", "V2.0"},
      {"filename", "rom.zip"},
      {"curr_version", "V1.0"},
      {"filesize", "1048576"},
      {"md5", "b6d81b360a5672d80c27430f39153e2c"},
      {"Validate", "signed"},
      {"0/host", "https://secure.yonda.example"},
      {"1/host", "http://mirror.yonda.example/base"},
  };
  for (const auto& [file, content] : layout) EXPECT_EQ(content, ReadFile(kRom + file)) << file;
  char target[256] = {};
  ASSERT_GT(readlink("/tmp/download/CurrentRom", target, sizeof(target) - 1), 0);
  EXPECT_STREQ("/tmp/download/LatestRom", target);
  EXPECT_EQ("RomInfo", ReadFile("/tmp/download/status"));
  EXPECT_EQ(0u, ReadFile("/tmp/download/response.uncrypted").find(kOffer));
  EXPECT_EQ(ReadFile("/cache/yonda/response.body"), ReadFile("/tmp/download/response.encrypted"));
  // A release build in the boot environment dumps only the allowed ROM facts.
  EXPECT_EQ("V2.0", ReadFile("/cache/yonda/download/LatestRom/version"));
  EXPECT_FALSE(Exists("/cache/yonda/download/LatestRom/Validate"));
  EXPECT_NE(
      std::string::npos,
      child->out().find("E:copy /cache/yonda/download/LatestRom/Validate only in test-keys\n"));
}

TEST_F(StageTest, BootEnvironmentReplaysTheQueryAndAnswerRecordedInTheSystem) {
  UseFullDevice();
  ServeAnswer(kOffer);
  Run("--first_stage");
  const std::string recorded_query = ReadFile("/tmp/download/request.encrypted");
  WriteFile("/cache/yonda/download/request.android.encrypted", recorded_query);
  WriteFile("/cache/yonda/enable_android_request", "1");
  props_.Set("ro.build.version.incremental", "V999");  // A query built now would differ.

  ServeAnswer(kOffer);
  auto replayed = Run("--first_stage");
  std::vector<harness::Request> requests = server_->requests();
  ASSERT_EQ(3u, requests.size());
  EXPECT_EQ(recorded_query, requests[1].body);
  EXPECT_EQ("TALU-V816.0.1", Members(requests[1].query)["v"]);
  // The recorded clear query is missing: its path goes where the data would.
  EXPECT_NE(std::string::npos, replayed->out().find("E:copy  only in test-keys\n"));

  WriteFile(
      "/cache/yonda/download/response.android.uncrypted",
      R"({"LatestRom":{"version":"V7.7","filename":"r.zip","filesize":"2M","md5":"m",)"
      R"("Validate":"v"},"CurrentRom":{"version":"V1"},"MirrorList":["http://mirror2.yonda.example"]})");
  WriteFile("/cache/yonda/enable_android_response", "1");
  ServeAnswer(kOffer);
  auto answered = Run("--first_stage");
  EXPECT_EQ("V7.7", ReadFile(std::string(kRom) + "version"));
  EXPECT_EQ("2097152", ReadFile(std::string(kRom) + "filesize"));
  EXPECT_EQ("0:s\n1:s\n2:s:0", answered->status());
  EXPECT_EQ("mirror2.yonda.example", server_->requests().back().host);
}

TEST_F(StageTest, InstallerLinesAreRelayedIntoTheLog) {
  auto missing = StartCommand("6");
  Finish(*missing);
  EXPECT_NE(std::string::npos,
            missing->out().find("E:Can't run /tmp/update-binary (No such file or directory)\n"));
  EXPECT_TRUE(android::base::EndsWith(missing->out(), "I:Bye bye, RUN_UPDATER\n"));

  umask(0);
  WriteFile("/tmp/update-binary",
            "#!/bin/bash\n"
            "echo \"args: $*\"\n"
            "touch /tmp/installed\n"
            "for line in 'progress 0.5 10' 'progress 0.5' 'ui_print Installing V2.0' "
            "'set_perm 0 0'; do echo \"$line\" >&$2; done\n"
            "exit 3\n");
  chmod("/tmp/update-binary", 0755);
  auto child = StartCommand("6");
  Finish(*child);
  const std::string& out = child->out();
  // The installer's exit status is not reported.
  EXPECT_TRUE(android::base::EndsWith(out,
                                      "E:invalid \"progress\" parameters: progress 0.5\n"
                                      "E:ui_print: Installing V2.0\n"
                                      "E:unknown command [set_perm]\n"
                                      "I:Bye bye, RUN_UPDATER\n"))
      << out;
  EXPECT_NE(std::string::npos, out.find("I:Here we go... the process ")) << out;
  const size_t args = out.find("args: 3 ");
  ASSERT_NE(std::string::npos, args) << out;
  EXPECT_NE(std::string::npos, out.find(" /tmp/secure_update.zip\n", args));
  // The installer's stdout is not repeated by the fork, and each line comes once.
  EXPECT_EQ(out.find("D:LogSeverity=1\n"), out.rfind("D:LogSeverity=1\n"));
  struct stat st;
  ASSERT_EQ(0, stat("/tmp/installed", &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// A whole first stage against the local update server: the enciphered query, the answer laid
// out under the scratch tree and dumped to the persistent tree, and the package probe.

#include <android-base/strings.h>
#include <cJSON.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bundlerun_child.h"
#include "harness/harness.h"

namespace {

using harness::Exists;
using harness::ReadFile;
using harness::UpdateServer;
using harness::WriteFile;

constexpr char kAnswerPath[] = "/tmp/harness/answer.json";
constexpr char kMirrorDir[] = "/tmp/harness/mirror";
constexpr char kRom[] = "/tmp/download/LatestRom";

constexpr char kOffer[] = R"({
  "LatestRom": {"version": "V2.0", "filename": "rom.zip", "filesize": "1M",
                "md5": "b6d81b360a5672d80c27430f39153e2c", "Validate": "signed"},
  "CurrentRom": {"version": "V1.0"},
  "MirrorList": ["https://secure.yonda.example", "http://mirror.yonda.example/base"]
})";

// Returns the hexadecimal digest that |tool| prints for |text|, cut where the device cuts it: at
// the first zero byte.
std::string DeviceDigest(const std::string& tool, const std::string& text) {
  std::string command = "printf %s '" + text + "' | " + tool;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  char hex[129] = {};
  fscanf(pipe.get(), "%128s", hex);
  std::string digest = hex;
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

class FirstStageTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    UseFullDevice();
    mkdir(kMirrorDir, 0755);
    mkdir((std::string(kMirrorDir) + "/base").c_str(), 0755);
    mkdir((std::string(kMirrorDir) + "/base/V2.0").c_str(), 0755);
    WriteFile(std::string(kMirrorDir) + "/base/V2.0/rom.zip", std::string(4096, 'z'));
  }

  // Serves |answer| and runs a first stage; returns it finished.
  std::unique_ptr<bundlerun_parent::Child> RunFirstStage(const std::string& answer,
                                                         std::vector<std::string> extra = {}) {
    WriteFile(kAnswerPath, answer);
    std::vector<std::string> args = {"--answer", kAnswerPath, "--packages", kMirrorDir};
    args.insert(args.end(), extra.begin(), extra.end());
    server_.reset();  // Port 80 must be free for the next one.
    server_ = std::make_unique<UpdateServer>(args);
    EXPECT_TRUE(server_->ok());
    auto child = StartStage("--first_stage");
    Finish(*child);
    return child;
  }

  std::unique_ptr<UpdateServer> server_;
};

TEST_F(FirstStageTest, QueriesLaysOutAndProbesTheOfferedRom) {
  auto child = RunFirstStage(kOffer);
  EXPECT_EQ("0:s\n1:s\n2:s:0", child->status());

  std::vector<harness::Request> requests = server_->requests();
  ASSERT_EQ(3u, requests.size());
  EXPECT_EQ("HEAD /", requests[0].method + " " + requests[0].path);
  const harness::Request& query = requests[1];
  EXPECT_EQ("POST /updates/zeotaV3.php", query.method + " " + query.path);
  EXPECT_EQ(TEST_UPDATE_HOST, query.host);
  EXPECT_EQ("no-cache", query.header("Cache-Contorl"));
  EXPECT_EQ("application/x-www-form-urlencoded", query.header("Content-type"));
  std::vector<std::string> fields = android::base::Split(query.body, "&");
  std::sort(fields.begin(), fields.end());
  ASSERT_EQ(3u, fields.size());
  EXPECT_TRUE(android::base::StartsWith(fields[0], "q=")) << query.body;
  EXPECT_EQ("s=1", fields[1]);
  EXPECT_EQ("t=", fields[2]);
  EXPECT_EQ(query.body, ReadFile("/tmp/download/request.encrypted"));
  EXPECT_EQ(query.query, ReadFile("/tmp/download/request.uncrypted"));
  EXPECT_EQ((std::map<std::string, std::string>{
                {"v", "TALU-V816.0.1"},
                {"bv", "14"},
                {"c", "13"},
                {"d", "cepheus"},
                {"i", DeviceDigest("sha256sum", "860000000000001")},
                {"b", "F"},
                {"l", "en-US"},
                {"r", "US"},
                {"n", "Tel"},
                {"p", "msmnile"},
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
  EXPECT_EQ("HEAD /base/V2.0/rom.zip", requests[2].method + " " + requests[2].path);
  EXPECT_EQ("mirror.yonda.example", requests[2].host);

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
  for (const auto& [file, content] : layout) {
    EXPECT_EQ(content, ReadFile(std::string(kRom) + "/" + file)) << file;
  }
  char target[256] = {};
  ASSERT_GT(readlink("/tmp/download/CurrentRom", target, sizeof(target) - 1), 0);
  EXPECT_STREQ(kRom, target);
  EXPECT_EQ("RomInfo", ReadFile("/tmp/download/status"));
  EXPECT_EQ(0u, ReadFile("/tmp/download/response.uncrypted").find(kOffer));
  EXPECT_EQ(ReadFile("/cache/yonda/response.body"), ReadFile("/tmp/download/response.encrypted"));

  // A release build in the boot environment keeps only the allowed ROM facts.
  for (const char* file :
       {"LatestRom/0", "LatestRom/1", "LatestRom/filename", "LatestRom/md5", "LatestRom/version"}) {
    EXPECT_TRUE(Exists(std::string("/cache/yonda/download/") + file)) << file;
  }
  EXPECT_EQ("V2.0", ReadFile("/cache/yonda/download/LatestRom/version"));
  for (const char* file : {"LatestRom/Validate", "LatestRom/filesize", "LatestRom/curr_version",
                           "CurrentRom", "request.yonda.uncrypted", "request.yonda.encrypted",
                           "response.yonda.uncrypted", "response.yonda.encrypted"}) {
    EXPECT_FALSE(Exists(std::string("/cache/yonda/download/") + file)) << file;
  }
  EXPECT_NE(
      std::string::npos,
      child->out().find("E:copy /cache/yonda/download/LatestRom/Validate only in test-keys\n"));
}

TEST_F(FirstStageTest, TestKeysBuildDumpsEverything) {
  props_.Set("ro.build.tags", "test-keys");
  auto child = RunFirstStage(kOffer);
  EXPECT_EQ("0:s\n1:s\n2:s:0", child->status());
  EXPECT_EQ("signed", ReadFile("/cache/yonda/download/LatestRom/Validate"));
  EXPECT_EQ("LatestRom", ReadFile("/cache/yonda/download/CurrentRom"));
  EXPECT_EQ(ReadFile("/tmp/download/request.uncrypted"),
            ReadFile("/cache/yonda/download/request.yonda.uncrypted"));
  EXPECT_EQ(ReadFile("/tmp/download/response.encrypted"),
            ReadFile("/cache/yonda/download/response.yonda.encrypted"));
  EXPECT_EQ("", ReadFile("/cache/yonda/download/LatestRom/0"));
}

TEST_F(FirstStageTest, AnswersWithoutAnOfferedRomAndHostileAnswers) {
  std::string huge = R"({"LatestRom":{"version":"V2.0","filename":"rom.zip"},"MirrorList":[)";
  for (int i = 0; i < 20000; ++i) huge += "\"https://m" + std::to_string(i) + ".example\",";
  huge += "\"http://mirror.yonda.example/base\"]}";
  struct Case {
    const char* name;
    std::string answer;
    std::string status;
    std::map<std::string, std::string> files;  // in the ROM directory; "" content: must not exist
    std::string log;
  } cases[] = {
      {"no LatestRom",
       R"({"CurrentRom":{"version":"V1.0"}})",
       "0:s\n1:s\n2:s:2",
       {{"curr_version", "TALU-V816.0.1"}, {"version", "???"}},
       "I:>> No available rom to update!!\n"},
      {"no CurrentRom",
       R"({"LatestRom":[]})",
       "0:s\n1:s\n2:s:2",
       {{"curr_version", "TALU-V816.0.1 (N/A)"}, {"version", "???"}},
       ""},
      {"null CurrentRom",
       R"({"CurrentRom":null})",
       "0:s\n1:s\n2:s:2",
       {{"curr_version", "TALU-V816.0.1 (N/A)"}},
       ""},
      {"not JSON at all", "\x01\x02 this is not json", "0:s\n1:s\n2:s:2", {{"version", "???"}}, ""},
      {"offered ROM without keys",
       R"({"LatestRom":{}})",
       "0:s\n1:s\n2:s:0",
       {{"version", ""}, {"filename", ""}},
       "E:update answer has no \"MirrorList\" array, no mirror laid out\n"},
      {"non-string values",
       R"({"LatestRom":{"version":2,"filename":["x"]},"MirrorList":[7,"http://b"]})",
       "0:s\n1:s\n2:s:0",
       {{"version", ""}, {"0/host", ""}, {"1/host", "http://b"}},
       "E:update answer has no string \"version\", /tmp/download/LatestRom/version not "
       "written\n"},
      {"huge mirror list",
       huge,
       "0:s\n1:s\n2:s:0",
       {{"99/host", "https://m99.example"}, {"100", ""}},
       "E:update answer lists 20001 mirrors, only the first 100 are laid out\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    system("rm -rf /tmp/download/LatestRom/* /tmp/download/CurrentRom");
    auto child = RunFirstStage(c.answer);
    EXPECT_EQ(c.status, child->status());
    EXPECT_NE(std::string::npos, child->out().find(c.log)) << child->out();
    for (const auto& [file, content] : c.files) {
      const std::string path = std::string(kRom) + "/" + file;
      if (content.empty()) {
        EXPECT_FALSE(Exists(path)) << file;
      } else {
        EXPECT_EQ(content, ReadFile(path)) << file;
      }
    }
  }
}

TEST_F(FirstStageTest, AnswerFramingAndBrokenBase64) {
  auto framed = RunFirstStage(kOffer, {"--frame"});
  EXPECT_EQ("0:s\n1:s\n2:s:0", framed->status());
  EXPECT_EQ("V2.0", ReadFile(std::string(kRom) + "/version"));
  EXPECT_EQ('\n', ReadFile("/cache/yonda/response.body")[0]);
  EXPECT_NE('\n', ReadFile("/tmp/download/response.encrypted")[0]);

  system("rm -rf /tmp/download/LatestRom/* /tmp/download/CurrentRom");
  auto broken = RunFirstStage(kOffer, {"--break-base64"});
  EXPECT_NE(std::string::npos,
            broken->out().find("failed to use base64 to decode /cache/yonda/response.body\n"));
  EXPECT_FALSE(Exists(std::string(kRom) + "/version"));
  // The query itself succeeded; there is just nothing to probe.
  EXPECT_EQ("0:s\n1:s\n2:s:0", broken->status());
}

TEST_F(FirstStageTest, QuerySlowerThanFiveSecondsTimesOut) {
  auto child = RunFirstStage(kOffer, {"--delay", "/updates/zeotaV3.php=6500"});
  EXPECT_EQ("0:s\n1:f:CURLE_OPERATION_TIMEDOUT\n", child->status());
  EXPECT_EQ("28", ReadFile("/tmp/dgq/events/download_status"));
}

TEST_F(FirstStageTest, BootEnvironmentReplaysTheQueryAndAnswerRecordedInTheSystem) {
  RunFirstStage(kOffer);
  const std::string recorded_query = ReadFile("/tmp/download/request.encrypted");
  WriteFile("/cache/yonda/download/request.android.encrypted", recorded_query);
  WriteFile("/cache/yonda/enable_android_request", "1");
  props_.Set("ro.build.version.incremental", "V999");  // Today's query would differ.

  auto replayed = RunFirstStage(kOffer);
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
  auto answered = RunFirstStage(kOffer);
  EXPECT_EQ("V7.7", ReadFile(std::string(kRom) + "/version"));
  EXPECT_EQ("2097152", ReadFile(std::string(kRom) + "/filesize"));
  EXPECT_EQ("0:s\n1:s\n2:s:0", answered->status());
  EXPECT_EQ("mirror2.yonda.example", server_->requests().back().host);
}

TEST_F(FirstStageTest, SystemImageKeepsItsScratchTreeUnderCache) {
  props_.Set("ro.bootimage.name", "android");
  auto child = RunFirstStage(kOffer);
  EXPECT_EQ("0:s\n1:s\n2:s:0", child->status());
  EXPECT_EQ("V2.0", ReadFile("/cache/tmp/download/LatestRom/version"));
  EXPECT_EQ(server_->requests()[1].body, ReadFile("/cache/tmp/download/request.encrypted"));
  EXPECT_EQ(ReadFile("/cache/tmp/download/request.uncrypted"),
            ReadFile("/cache/yonda/download/request.android.uncrypted"));
  EXPECT_EQ("LatestRom", ReadFile("/cache/yonda/download/CurrentRom"));
  EXPECT_TRUE(Exists("/cache/tmp/dgq/events/download_status"));
  EXPECT_FALSE(Exists("/tmp/download"));
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The offered ROM laid out under the scratch tree, read back as a package address, dumped to
// the persistent tree, and the diagnostic events beside it.

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness/harness.h"
#include "request/bundlerun_entry.h"
#include "yondatools/yonda-dgq/dgqprotocal.h"
#include "yondatools/yonda-root/jsondump.h"
#include "yondatools/yonda-root/secure_mount.h"
#include "yondatools/yonda-update/dir2url.h"

namespace {

using harness::Exists;
using harness::LogCapture;
using harness::ReadFile;
using harness::WriteFile;

constexpr char kRom[] = "/tmp/download/LatestRom";

constexpr char kGoodAnswer[] = R"({
  "LatestRom": {"version": "V2.0", "filename": "rom.zip", "filesize": "2.5G",
                "md5": "0123456789abcdef0123456789abcdef", "Validate": "signed"},
  "CurrentRom": {"version": "V1.0"},
  "MirrorList": ["https://secure.yonda.example", "http://mirror.yonda.example/base"]
})";

class RomLayoutTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    prepare_and_correct_dir();
  }
  // Lays |answer| out; the test frees the whole document itself.
  void LayOut(const std::string& answer) {
    JsonHandle doc(cJSON_Parse(answer.c_str()), cJSON_Delete);
    JsonHandle back = handle_latestrom_to_dir(std::move(doc));
  }
};

TEST_F(RomLayoutTest, LayoutIsRewrittenOverAnEarlierOne) {
  umask(022);
  LayOut(kGoodAnswer);
  struct stat st;
  ASSERT_EQ(0, stat((std::string(kRom) + "/1").c_str(), &st));
  EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 0644), st.st_mode);

  // A second run finds the mirror directories there, rewrites everything and points the link
  // at the ROM again.
  LogCapture log;
  LayOut(R"({"LatestRom":{"version":"V3","filename":"b.zip","filesize":"1M","md5":"m",
             "Validate":"v"},"CurrentRom":{"version":"V2"},"MirrorList":["http://m2"]})");
  EXPECT_TRUE(android::base::EndsWith(
      log.text(), "I:Create the CurrentRom info \"/tmp/download/CurrentRom\" -> \"" +
                      std::string(kRom) + "\"\n"))
      << log.text();
  EXPECT_EQ("V3", ReadFile(std::string(kRom) + "/version"));
  EXPECT_EQ("1048576", ReadFile(std::string(kRom) + "/filesize"));
  EXPECT_EQ("http://m2", ReadFile(std::string(kRom) + "/0/host"));
  EXPECT_EQ("http://mirror.yonda.example/base", ReadFile(std::string(kRom) + "/1/host"));
}

TEST_F(RomLayoutTest, SizeIsConvertedOnlyForMegaAndGigaSuffixes) {
  struct Case {
    const char* size;
    const char* file;  // nullptr: no file written
    bool error;
  } cases[] = {
      {"1M", "1048576", false},          {"0.5G", "536870912", false}, {"800M", "838860800", false},
      {" 1.9999999M", "2097151", false}, {"3xM", "3145728", false},    {"1536K", nullptr, false},
      {"1048576", nullptr, false},       {"xM", nullptr, true},        {"1e400G", nullptr, true},
      {"9e18G", nullptr, true},          {"", nullptr, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    unlink((std::string(kRom) + "/filesize").c_str());
    LogCapture log;
    LayOut(std::string(R"({"LatestRom":{"filesize":")") + c.size + R"("}})");
    if (c.file) {
      EXPECT_EQ(c.file, ReadFile(std::string(kRom) + "/filesize"));
    } else {
      EXPECT_FALSE(Exists(std::string(kRom) + "/filesize"));
    }
    // Only the size's own error names the member in quotes.
    EXPECT_EQ(c.error, log.text().find("\"filesize\"") != std::string::npos) << log.text();
  }
}

TEST_F(RomLayoutTest, PackageAddressComesFromTheFirstPlainHttpMirror) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> files;  // relative to the ROM directory
    std::vector<std::string> url;
    std::string error;
  } cases[] = {
      {"mirror files win over the rom directory",
       {{"0/host", "http://a"},
        {"0/version", "MV"},
        {"0/filename", "m.zip"},
        {"version", "V"},
        {"filename", "f"}},
       {"http://", "a", "/MV/m.zip"},
       ""},
      {"short host is used as it stands",
       {{"0/host", "abcd"}, {"version", "V"}, {"filename", "f"}},
       {"http://", "", "/V/f"},
       ""},
      {"all mirrors https",
       {{"0/host", "https://a"}, {"1/host", "https://b"}},
       {},
       "E:failed to read host: No such file or directory\n"},
      {"no filename",
       {{"0/host", "http://a"}, {"version", "v"}},
       {},
       "E:failed to read filename: No such file or directory\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    system("rm -rf /tmp/download/LatestRom/*");
    for (const auto& [file, content] : c.files) {
      std::string path = std::string(kRom) + "/" + file;
      mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
      WriteFile(path, content);
    }
    create_symlink_forrom(kRom);
    LogCapture log;
    EXPECT_EQ(c.url, handle_rom_to_url(0));
    if (!c.error.empty()) {
      EXPECT_EQ(c.error, log.text());
    }
  }
  unlink("/tmp/download/CurrentRom");
  LogCapture log;
  EXPECT_TRUE(handle_rom_to_url(0).empty());
  EXPECT_EQ("", getFileSize());
  EXPECT_EQ(
      "E:failed to get realpath of \"/tmp/download/CurrentRom\": No such file or directory\n"
      "E:failed to get realpath: No such file or directory\n",
      log.text());
}

TEST_F(RomLayoutTest, DumpCopiesWhatTheGuardAllows) {
  LayOut(kGoodAnswer);
  WriteFile("/tmp/download/request.uncrypted", "clear");
  WriteFile("/tmp/download/response.encrypted", "cipher");
  struct Case {
    const char* tags;
    std::vector<std::pair<std::string, std::string>> files;  // relative to the download dir
    std::vector<std::string> absent;
  } cases[] = {
      {"release-keys",
       {{"LatestRom/version", "V2.0"},
        {"LatestRom/md5", "0123456789abcdef0123456789abcdef"},
        {"LatestRom/filename", "rom.zip"},
        {"LatestRom/0", ""},
        {"LatestRom/1", ""}},
       {"LatestRom/Validate", "LatestRom/filesize", "CurrentRom", "request.yonda.uncrypted",
        "response.yonda.encrypted", "LatestRom/0/host"}},
      {"test-keys",
       {{"LatestRom/Validate", "signed"},
        {"LatestRom/filesize", "2684354560"},
        {"CurrentRom", "LatestRom"},
        {"request.yonda.uncrypted", "clear"},
        {"request.yonda.encrypted", ""},
        {"response.yonda.encrypted", "cipher"},
        {"response.yonda.uncrypted", ""}},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tags);
    system("rm -rf /cache/yonda/download");
    props_.Set("ro.build.tags", c.tags);
    LogCapture log;
    jsondump();
    for (const auto& [file, content] : c.files) {
      EXPECT_EQ(content, ReadFile("/cache/yonda/download/" + file)) << file;
      EXPECT_TRUE(Exists("/cache/yonda/download/" + file)) << file;
    }
    for (const std::string& f : c.absent) EXPECT_FALSE(Exists("/cache/yonda/download/" + f)) << f;
    EXPECT_NE(std::string::npos,
              log.text().find("D:>> Dump LatestRom under \"/tmp/download/CrossRom\" to "
                              "\"/cache/yonda/download/CrossRom\"\n"));
  }
  // A file where the persistent root belongs is replaced by the directory.
  system("rm -rf /cache/yonda/download");
  WriteFile("/cache/yonda/download", "stale");
  jsondump();
  struct stat st;
  ASSERT_EQ(0, stat("/cache/yonda/download", &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(RomLayoutTest, DiagnosticEventIsOneFilePerFieldAndChecksThePidFile) {
  LogCapture log;
  yondadgq::dgq_write_data({{"download_reason", ""}, {"download_status", "28"}});
  yondadgq::dgq_write_data({{"download_status", "0"}});
  EXPECT_EQ("", ReadFile("/tmp/dgq/events/download_reason"));
  EXPECT_TRUE(Exists("/tmp/dgq/events/download_reason"));
  EXPECT_EQ("0", ReadFile("/tmp/dgq/events/download_status"));
  EXPECT_NE(std::string::npos,
            log.text().find("E:failed to get /cache/yonda/diagpid:2(No such file or directory)\n"));

  WriteFile("/cache/yonda/diagpid", "123");
  LogCapture with_pid;
  yondadgq::dgq_write_data({});
  EXPECT_EQ(
      "I:file /cache/yonda/diagpidis existed\n"
      "I:DgqUpload disabled the signalling to \"--diag\"\n",
      with_pid.text());

  WriteFile("/cache/yonda/diagpid", "abc");
  // Nothing on the way up catches the conversion error: the process ends.
  EXPECT_DEATH(
      []() noexcept {
        yondadgq::dgq_write_data({{"download_status", "7"}});
      }(),
      "what\\(\\):  stoi");
  EXPECT_EQ("7", ReadFile("/tmp/dgq/events/download_status"));
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include <android-base/properties.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>

#include "harness/harness.h"
#include "yonda_property.h"

namespace {

using harness::WriteFile;

class PropertyStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    harness::RequireSandbox();
    setenv("BUNDLERUN_PROPERTIES", path_.c_str(), 1);
  }
  void TearDown() override { unsetenv("BUNDLERUN_PROPERTIES"); }
  const std::string path_ = "/tmp/store.prop";
};

TEST_F(PropertyStoreTest, ReadsBuildPropSyntaxAsTheDeviceWould) {
  const std::string v91(91, 'a');
  const std::string v92(92, 'b');
  const std::string long_default(200, 'd');
  struct Case {
    const char* name;
    std::optional<std::string> file;  // nothing: no file at all
    std::string key;
    std::string get;     // GetProperty(key, "dflt")
    std::string cutils;  // property_get(key, buf, |cutils_default|)
    const char* cutils_default = "dflt";
  } cases[] = {
      {"plain", "a.b=1\n", "a.b", "1", "1"},
      {"blanks around key", "  a.b =x\n", "a.b", "x", "x"},
      {"value kept as it stands", "a.b= x y \n", "a.b", " x y ", " x y "},
      {"equals inside value", "a.b=k=v==\n", "a.b", "k=v==", "k=v=="},
      {"comment skipped", "#a.b=1\n  # a.b=2\n", "a.b", "dflt", "dflt"},
      {"last line wins", "a.b=1\nc=2\na.b=4\n", "a.b", "4", "4"},
      {"line without equals", "a.b\n", "a.b", "dflt", "dflt"},
      {"empty value is unset", "a.b=\n", "a.b", "dflt", "dflt"},
      {"prefix of another key", "a.bc=1\n", "a.b", "dflt", "dflt"},
      {"91 bytes fit", "a.b=" + v91 + "\n", "a.b", v91, v91},
      {"92 bytes are cut to 91", "a.b=" + v92 + "\n", "a.b", v92, v92.substr(0, 91)},
      {"no file", std::nullopt, "a.b", "dflt", "dflt"},
      {"null default", std::nullopt, "a.b", "dflt", "", nullptr},
      {"default cut to 91", std::nullopt, "a.b", "dflt", long_default.substr(0, 91),
       long_default.c_str()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.file ? WriteFile(path_, *c.file) : static_cast<void>(unlink(path_.c_str()));
    EXPECT_EQ(c.get, android::base::GetProperty(c.key, "dflt"));
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'z', sizeof(value));
    EXPECT_EQ(static_cast<int>(c.cutils.size()),
              property_get(c.key.c_str(), value, c.cutils_default));
    EXPECT_EQ(c.cutils, value);
  }
}

TEST_F(PropertyStoreTest, SetPropertyRewritesTheFileForOtherReaders) {
  WriteFile(path_, "# device\nkeep=1\nyonda.timesync.ready=0\nyonda.timesync.ready=5\n");
  ASSERT_TRUE(android::base::SetProperty("yonda.timesync.ready", "1"));
  EXPECT_EQ("# device\nkeep=1\nyonda.timesync.ready=1\n", harness::ReadFile(path_));
  ASSERT_TRUE(android::base::SetProperty("new.key", "a=b"));
  EXPECT_EQ("a=b", android::base::GetProperty("new.key", ""));
  EXPECT_EQ("1", android::base::GetProperty("keep", ""));
}

TEST_F(PropertyStoreTest, ReadersNeverSeeAHalfWrittenFile) {
  std::string filler;
  for (int i = 0; i < 2000; ++i) filler += "filler." + std::to_string(i) + "=" + "x\n";
  WriteFile(path_, filler + "k=a\n");
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 200; ++i) android::base::SetProperty("k", i % 2 ? "a" : "b");
    done = true;
  });
  int reads = 0;
  while (!done) {
    std::string v = android::base::GetProperty("k", "missing");
    ASSERT_TRUE(v == "a" || v == "b") << v;
    ASSERT_EQ("x", android::base::GetProperty("filler.1999", "missing"));
    ++reads;
  }
  writer.join();
  EXPECT_GT(reads, 0);
}

TEST_F(PropertyStoreTest, WithoutAFileThePropertiesLiveInMemory) {
  unsetenv("BUNDLERUN_PROPERTIES");
  EXPECT_EQ("0", android::base::GetProperty("mem.key", "0"));
  ASSERT_TRUE(android::base::SetProperty("mem.key", "7"));
  EXPECT_EQ("7", android::base::GetProperty("mem.key", "0"));
  EXPECT_FALSE(harness::Exists(path_));
}

TEST_F(PropertyStoreTest, PropertyLibraryReadsBuildFlavourAndSerial) {
  struct Case {
    std::string file;
    bool international;
    bool stable;
    int serial_result;
    std::string serial;
  } cases[] = {
      {"", false, false, -1, ""},
      {"ro.yonda.build.international=1\nro.yonda.build.channel=stable\nro.serialno=S1\n", true,
       true, 0, "S1"},
      {"ro.yonda.build.international=11\nro.yonda.build.channel=Stable\nro.boot.serialno=B\n",
       false, false, 0, "B"},
      {"ro.serialno=\nro.boot.serialno=" + std::string(95, 'n') + "\n", false, false, 0,
       std::string(91, 'n')},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    WriteFile(path_, c.file);
    EXPECT_EQ(c.international, isInternationalVersion());
    EXPECT_EQ(c.stable, isStableVersion());
    char serial[PROPERTY_VALUE_MAX] = {};
    EXPECT_EQ(c.serial_result, getDeviceSerial(serial));
    EXPECT_EQ(c.serial, serial);
  }
}

}  // namespace

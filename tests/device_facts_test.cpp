/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// Device facts as the update query sends them, and the form that carries the query.
// Digests below were made with sha256sum and sha1sum.

#include "request/device_facts.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>

#include <optional>
#include <string>

#include "common/url_wrapper.h"
#include "harness/harness.h"
#include "request/update_checker.h"

namespace {

using harness::WriteFile;
using Getter = int (*)(StringMap&);

class DeviceFactsTest : public harness::SandboxTest {
 protected:
  // Runs |getter| on a fresh map with the device's properties set to |props|.
  void Check(const std::string& props, Getter getter, const std::string& key,
             const std::optional<std::string>& value, int result, const std::string& printed) {
    SCOPED_TRACE(props + " -> " + key);
    WriteFile(props_.path(), props + "\n");
    StringMap facts;
    testing::internal::CaptureStdout();
    EXPECT_EQ(result, getter(facts));
    fflush(stdout);
    EXPECT_EQ(printed, testing::internal::GetCapturedStdout());
    if (value) {
      EXPECT_EQ(*value, facts[key]);
    } else {
      EXPECT_EQ(0u, facts.count(key));
    }
  }
};

TEST_F(DeviceFactsTest, GettersReadPropertiesInOrderAndStoreTheServersCodes) {
  const auto absent = std::nullopt;
  struct Case {
    std::string props;
    Getter getter;
    std::string key;
    std::optional<std::string> value;
    int result;
    std::string printed;
  } cases[] = {
      {"debug.build_version=abc\nro.build.version.incremental=12", getTALUVersion, "v", "TALU-abc",
       0, ""},
      {"", getTALUVersion, "v", absent, -1, "failed to get ro.build.version.incremental\n"},
      {"debug.talu_version=V9\nro.talu.ui.version.name=V14", getTALUBigVersion, "bv", "9", 0, ""},
      {"ro.talu.ui.version.name=V", getTALUBigVersion, "bv", "", 0, ""},
      {"ro.talu.ui.version.name=14", getTALUBigVersion, "bv", absent, -1,
       "failed to get ro.talu.ui.version.name\n"},
      {"debug.android_version=13\nro.build.version.release=11", getCodeBase, "c", "13", 0, ""},
      {"ro.product.mod_device=mod", getDeviceName, "d", "mod", 0, ""},
      {"ro.product.device=dev\nro.product.mod_device=mod", getDeviceName, "d", "dev", 0, ""},
      {"", getDeviceName, "d", absent, -1, "failed to get ro.product.device\n"},
      {"ro.ril.talu.imei1=860000000000001", getImei, "i",
       "aa395307d027f3da7e8390144ebb3f61d580b63c6bd0b2fc864426bc6b0585bd", 0, ""},
      // The digest is sent up to its first zero byte (7004f100...).
      {"ro.ril.talu.imei=860000000000170\nro.ril.talu.imei0=x", getImei, "i", "7004f1", 0, ""},
      {"ro.ril.talu.imei0=860000000000054", getImei, "i", "", 0, ""},
      {"", getImei, "i", "null", 0, ""},
      {"debug.build_type=stable", getBranchCode, "b", "F", 0, ""},
      {"debug.build_type=stable2\nro.yonda.build.channel=stable", getBranchCode, "b", "X", 0, ""},
      {"", getBranchCode, "b", "X", 0, ""},
      {"ro.product.locale=zh-Hans-CN", getRegion, "r", "Hans-CN", 0, ""},
      {"ro.product.locale=en", getRegion, "r", absent, -1, "failed to get region.\n"},
      {"", getRegion, "r", absent, -1, "failed to get ro.product.locale\n"},
      {"", getCarrier, "n", "", 0, ""},
      {"ro.debuggable=00", getRootable, "isR", "1", 0, ""},
      {"debug.debuggable=0\nro.debuggable=1", getRootable, "isR", "0", 0, ""},
      {"", getRootable, "isR", absent, -1, "failed to get ro.debuggable\n"},
      {"debug.lockstate=unlocked\nro.secureboot.lockstate=locked", getDeviceLockState, "unlock",
       "1", 0, ""},
      {"ro.secureboot.lockstate=locked2", getDeviceLockState, "unlock", "2", 0, ""},
      {"", getDeviceLockState, "unlock", "2", 0, ""},
      {"ro.sf.lcd_density=320", getDeviceDpi, "dpi", "xhdpi", 0, ""},
      {"ro.sf.lcd_density=321", getDeviceDpi, "dpi", "xxhdpi", 0, ""},
      {"ro.sf.lcd_density=480", getDeviceDpi, "dpi", "xxhdpi", 0, ""},
      {"ro.sf.lcd_density=481", getDeviceDpi, "dpi", "xxxhdpi", 0, ""},
      {"", getDeviceDpi, "dpi", "xhdpi", 0, ""},
      {"ro.ril.talu.imei1=860000000000001", getHashId, "hashId", "c37d66409b164888", 0,
       "getHashId call string_to_hex\n"},
      // SHA-1 612f3a335c00...: cut at the zero byte, shorter than 16.
      {"ro.ril.talu.imei=860000000000548", getHashId, "hashId", "612f3a335c", 0,
       "getHashId call string_to_hex\n"},
      {"ro.ril.talu.imei=860000000000147", getHashId, "hashId", "null", 0,
       "getHashId call string_to_hex\n"},
      {"", getHashId, "hashId", "2be88ca4242c76e8", 0, "getHashId call string_to_hex\n"},
      {"", getABSystem, "ab", "0", 0, ""},
  };
  for (const Case& c : cases) Check(c.props, c.getter, c.key, c.value, c.result, c.printed);

  // The system modification flag comes from the OTA daemon's log.
  Check("", getWhetherSystemModified, "sys", "0", 0, "otad.log not existed\n");
  mkdir("/cache/otad", 0755);
  WriteFile("/cache/otad/otad.log", "line\nmid@dle\n");
  Check("", getWhetherSystemModified, "sys", "0", 0, "");
  WriteFile("/cache/otad/otad.log", "line\n@system changed\nmore\n");
  Check("", getWhetherSystemModified, "sys", "1", 0, "");
}

TEST_F(DeviceFactsTest, FormParametersAndServerAddress) {
  mkdir("/tmp/download", 0755);
  std::string json = "{\"0123456789ab\"}";
  json.resize(16, ' ');
  std::string unused;
  StringMap params;
  testing::internal::CaptureStdout();
  ASSERT_EQ(0, getUpdateUrlParams(json, unused, "", 1, params));
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(44u, params["q"].size());  // 16 bytes encipher to 32, which encode to 44.
  EXPECT_EQ("", params["t"]);
  EXPECT_EQ("1", params["s"]);
  EXPECT_EQ(json, harness::ReadFile("/tmp/download/request.uncrypted"));

  props_.Set("ro.yonda.build.international", "1");
  URLWrapper url;
  testing::internal::CaptureStdout();
  checkUpdateInfo(params, url);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::string("http://") + TEST_INTL_UPDATE_HOST + "/updates/zeotaV3.php", url.url());
}

}  // namespace

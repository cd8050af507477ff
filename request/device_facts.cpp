/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "request/device_facts.h"

#include <cutils/properties.h>
#include <openssl/sha.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/cipher.h"
#include "common/unique_file.h"
#include "yonda_property.h"

namespace {

constexpr char kOtadLogPath[] = "/cache/otad/otad.log";
constexpr char kImeiProps[][20] = {"ro.ril.talu.imei", "ro.ril.talu.imei0", "ro.ril.talu.imei1"};
constexpr size_t kHashIdLength = 16;

// A zeroed property value buffer of the platform's maximum size.
struct PropertyValue {
  char text[PROPERTY_VALUE_MAX] = {};
};

// Reads |name| into |value|; returns true when it has a non-empty value.
bool ReadProperty(const char* name, PropertyValue& value) {
  return property_get(name, value.text, nullptr) > 0;
}

// Reads the tester's override |debug_name| first, then |name|.
bool ReadOverridable(const char* debug_name, const char* name, PropertyValue& value) {
  return ReadProperty(debug_name, value) || ReadProperty(name, value);
}

// Stores the value of |name| (after its override, if any) under |key|, or reports it missing.
int StoreProperty(StringMap& facts, const char* key, const char* debug_name, const char* name,
                  const char* reported_name) {
  PropertyValue value;
  bool found = debug_name ? ReadOverridable(debug_name, name, value) : ReadProperty(name, value);
  if (!found) {
    printf("failed to get %s\n", reported_name);
    return -1;
  }
  facts[key] = value.text;
  return 0;
}

// Reads the first device identifier that is set; returns false when there is none.
bool ReadIdentifier(PropertyValue& value) {
  for (const char* name : kImeiProps) {
    if (ReadProperty(name, value)) return true;
  }
  return false;
}

// Renders a digest in hexadecimal up to its first zero byte: the server takes the digest as a
// C string, so a zero byte ends it.
std::string DigestHex(const unsigned char* digest_buffer) {
  const char* bytes = reinterpret_cast<const char*>(digest_buffer);
  char* hex = nullptr;
  string_to_hex(&hex, bytes, strlen(bytes));
  std::string text = hex;
  free(hex);
  return text;
}

}  // namespace

int getTALUVersion(StringMap& facts) {
  PropertyValue value;
  if (!ReadOverridable("debug.build_version", "ro.build.version.incremental", value)) {
    printf("failed to get %s\n", "ro.build.version.incremental");
    return -1;
  }
  facts["v"] = std::string("TALU-") + value.text;
  return 0;
}

int getTALUBigVersion(StringMap& facts) {
  PropertyValue value;
  if (!ReadOverridable("debug.talu_version", "ro.talu.ui.version.name", value) ||
      value.text[0] != 'V') {
    printf("failed to get %s\n", "ro.talu.ui.version.name");
    return -1;
  }
  facts["bv"] = value.text + 1;
  return 0;
}

int getCodeBase(StringMap& facts) {
  return StoreProperty(facts, "c", "debug.android_version", "ro.build.version.release",
                       "ro.build.version.release");
}

int getDeviceName(StringMap& facts) {
  return StoreProperty(facts, "d", "ro.product.device", "ro.product.mod_device",
                       "ro.product.device");
}

int getImei(StringMap& facts) {
  PropertyValue value;
  if (!ReadIdentifier(value)) {
    facts["i"] = "null";
    return 0;
  }
  unsigned char digest[64] = {};
  SHA256(reinterpret_cast<const uint8_t*>(value.text), strlen(value.text), digest);
  facts["i"] = DigestHex(digest);
  return 0;
}

int getBranchCode(StringMap& facts) {
  PropertyValue value;
  bool stable = ReadProperty("debug.build_type", value) ? strcmp(value.text, "stable") == 0
                                                        : isStableVersion();
  facts["b"] = stable ? "F" : "X";
  return 0;
}

int getLanguage(StringMap& facts) {
  PropertyValue value;
  if (!ReadProperty("ro.product.locale", value)) {
    printf("failed to get %s", "ro.product.locale");
    return -1;
  }
  facts["l"] = value.text;
  return 0;
}

int getRegion(StringMap& facts) {
  PropertyValue value;
  if (!ReadProperty("ro.product.locale", value)) {
    printf("failed to get %s\n", "ro.product.locale");
    return -1;
  }
  char language[PROPERTY_VALUE_MAX] = {};
  char region[PROPERTY_VALUE_MAX] = {};
  if (sscanf(value.text, "%[^-]-%[^\n]", language, region) < 2) {
    puts("failed to get region.");
    return -1;
  }
  facts["r"] = region;
  return 0;
}

int getCarrier(StringMap& facts) {
  PropertyValue value;
  property_get("ro.carrier.name", value.text, "");
  facts["n"] = value.text;
  return 0;
}

int getProductBoard(StringMap& facts) {
  return StoreProperty(facts, "p", nullptr, "ro.product.board", "ro.product.board");
}

int getRootable(StringMap& facts) {
  PropertyValue value;
  if (!ReadOverridable("debug.debuggable", "ro.debuggable", value)) {
    printf("failed to get %s\n", "ro.debuggable");
    return -1;
  }
  facts["isR"] = strcmp(value.text, "0") == 0 ? "0" : "1";
  return 0;
}

int getSerialNum(StringMap& facts) {
  std::vector<char> serial(PROPERTY_VALUE_MAX, '\0');
  if (getDeviceSerial(serial.data()) != 0) {
    puts("failed to get Serial Number");
    return -1;
  }
  facts["sn"] = serial.data();
  return 0;
}

int getWhetherSystemModified(StringMap& facts) {
  if (access(kOtadLogPath, F_OK) != 0) {
    puts("otad.log not existed");
    facts["sys"] = "0";
    return 0;
  }
  UniqueFile log(fopen(kOtadLogPath, "r"));
  if (!log) {
    printf("E: failed to open %s\n", "otad.log");
    facts["sys"] = "0";
    return -1;
  }
  // A line that starts with '@' records a change made to the system partition.
  facts["sys"] = "0";
  char* line = nullptr;
  size_t capacity = 0;
  while (getline(&line, &capacity, log.get()) != -1) {
    if (line[0] == '@') {
      facts["sys"] = "1";
      break;
    }
  }
  free(line);
  return 0;
}

int getDeviceLockState(StringMap& facts) {
  PropertyValue value;
  if (!ReadProperty("debug.lockstate", value)) {
    property_get("ro.secureboot.lockstate", value.text, "unknown");
  }
  if (strcmp(value.text, "locked") == 0) {
    facts["unlock"] = "0";
  } else if (strcmp(value.text, "unlocked") == 0) {
    facts["unlock"] = "1";
  } else {
    facts["unlock"] = "2";
  }
  return 0;
}

int getDeviceDpi(StringMap& facts) {
  PropertyValue value;
  property_get("ro.sf.lcd_density", value.text, "0");
  int density = atoi(value.text);
  if (density <= 320) {
    facts["dpi"] = "xhdpi";
  } else if (density <= 480) {
    facts["dpi"] = "xxhdpi";
  } else {
    facts["dpi"] = "xxxhdpi";
  }
  return 0;
}

int getHashId(StringMap& facts) {
  PropertyValue value;
  if (!ReadIdentifier(value)) strcpy(value.text, "null");
  unsigned char digest[32] = {};
  SHA1(reinterpret_cast<const uint8_t*>(value.text), strlen(value.text), digest);
  printf("%s call string_to_hex\n", "getHashId");
  std::string hex = DigestHex(digest);
  if (hex.empty()) {
    facts["hashId"] = "null";
    return 0;
  }
  if (hex.size() > kHashIdLength) hex.resize(kHashIdLength);
  facts["hashId"] = hex;
  return 0;
}

int getRomZone(StringMap& facts) {
  return StoreProperty(facts, "zone", nullptr, "ro.rom.zone", "ro.rom.zone");
}

int getABSystem(StringMap& facts) {
  PropertyValue value;
  facts["ab"] = ReadProperty("ro.boot.slot_suffix", value) ? "1" : "0";
  return 0;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "update_checker"

#include "request/update_checker.h"

#include <android-base/logging.h>
#include <cJSON.h>
#include <stdlib.h>

#include <utility>

#include "common/cipher.h"
#include "common/paths.h"
#include "request/device_facts.h"
#include "request/update_hosts.h"
#include "yondatools/yonda-root/secure_mount.h"

namespace {

constexpr char kUpdatePath[] = "/updates/zeotaV3.php";

// Returns a JSON object with one string member per entry of |map|.
cJSON* ToJsonObject(const StringMap& map) {
  cJSON* object = cJSON_CreateObject();
  for (const auto& [key, value] : map) {
    cJSON_AddItemToObject(object, key.c_str(), cJSON_CreateString(value.c_str()));
  }
  return object;
}

// Returns the value of |key|, or an empty text when it was never set.
std::string Lookup(const StringMap& map, const std::string& key) {
  auto it = map.find(key);
  return it == map.end() ? "" : it->second;
}

}  // namespace

int getUpdateJsonMap(int, std::string& out) {
  StringMap facts;
  facts.max_load_factor(1.0);
  getTALUVersion(facts);
  getTALUBigVersion(facts);
  getCodeBase(facts);
  getDeviceName(facts);
  getImei(facts);
  getBranchCode(facts);
  getLanguage(facts);
  getRegion(facts);
  getCarrier(facts);
  getProductBoard(facts);
  getRootable(facts);
  getSerialNum(facts);
  getWhetherSystemModified(facts);
  getDeviceLockState(facts);
  getDeviceDpi(facts);
  facts["f"] = "1";
  getHashId(facts);
  facts["sid"] = "3001";
  cJSON* document = ToJsonObject(facts);

  StringMap option_facts;
  option_facts.max_load_factor(1.0);
  getRomZone(option_facts);
  getABSystem(option_facts);
  option_facts["express"] = "0";
  cJSON* options = ToJsonObject(option_facts);
  cJSON_AddItemToObject(document, "options", options);

  char* text = cJSON_Print(document);
  out = text;
  cJSON_free(text);
  // Only the two object blocks are released; their members live until the process ends.
  cJSON_free(options);
  cJSON_free(document);
  return 0;
}

int getUpdateUrlHeader(StringMap& headers) {
  headers["Cache-Control"] = "no-cache";
  headers["Cookie"] = "";
  return 0;
}

int getUpdateUrlParams(std::string& json, std::string&, std::string&& t, int s, StringMap& params) {
  create_file_and_writedata(kTmpRequestPlainPath, json);
  char* raw_cipher = nullptr;
  int cipher_len = 0;
  // The cipher hands its buffer over on failure too.
  const int encrypted = AES_CBC_PKCS5Padding_Encrypt(kUpdateCipherKey, &raw_cipher, &cipher_len,
                                                     json.data(), static_cast<int>(json.size()));
  CipherBuffer cipher(raw_cipher);
  if (encrypted != 0) return -1;
  char* raw_encoded = nullptr;
  size_t encoded_len = 0;
  if (base64_encode(&raw_encoded, &encoded_len, cipher.get(), cipher_len) != 0) {
    // Deliberately left allocated: base64 fails only on a length overflow, and the query then
    // goes out without "q".
    cipher.release();
    return -1;
  }
  CipherBuffer encoded(raw_encoded);
  params["q"] = encoded.get();
  params["t"] = std::move(t);
  params["s"] = s == 1 ? "1" : "2";
  return 0;
}

int checkUpdateInfo(StringMap& params, URLWrapper& url) {
  std::string document;
  getUpdateJsonMap(0, document);
  LOG(DEBUG) << "checkUpdateInfo: clear text to upload=" << document;
  // Built and not sent, as the device has always done: the query task sends its own headers.
  StringMap headers;
  getUpdateUrlHeader(headers);
  std::string unused;
  getUpdateUrlParams(document, unused, "", 1, params);
  LOG(DEBUG) << "checkUpdateInfo: crypto text has [" << Lookup(params, "q") << "], ["
             << Lookup(params, "t") << "], [" << Lookup(params, "s") << "]";
  URLWrapper address("http://", UpdateHost(), "", kUpdatePath);
  url = std::move(address);
  return 0;
}

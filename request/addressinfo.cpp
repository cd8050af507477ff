/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "ADDRESSINFO"

#include "request/addressinfo.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cJSON.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/cipher.h"
#include "common/paths.h"
#include "request/device_facts.h"
#include "request/update_checker.h"
#include "yondatools/yonda-root/jsondump.h"
#include "yondatools/yonda-root/secure_mount.h"
#include "yondatools/yonda-update/dir2url.h"

namespace {

constexpr char kRule[] = "====================================";

// Returns the form body "key=value&..." with every value URL-escaped.
std::string BuildFormBody(const StringMap& params) {
  std::string body;
  for (const auto& [key, value] : params) {
    char* escaped = curl_escape(value.c_str(), static_cast<int>(value.size()));
    if (!body.empty()) body += "&";
    body += key + "=" + escaped;
    curl_free(escaped);
  }
  return body;
}

// Removes one line feed at each end of the answer, which some servers frame it with.
void StripFraming(std::string& text) {
  if (!text.empty() && text.front() == '\n') text.erase(0, 1);
  if (!text.empty() && text.back() == '\n') text.pop_back();
}

}  // namespace

AddressInfo::AddressInfo() : NetworkTask(LOG_TAG) {}

std::string AddressInfo::getDescriptor() {
  return "AddressInfo";
}

std::optional<URLWrapper> AddressInfo::Address() {
  params.clear();
  URLWrapper address;
  checkUpdateInfo(params, address);
  return address;
}

void AddressInfo::Prepare(const URLWrapper&) {
  const std::string form = BuildFormBody(params);
  create_file_and_writedata(kTmpRequestCipherPath, form);

  if (whichEnvironment() == "android") {
    postBody = form;
    jsondump();
  } else if (open_file_and_readdata(kEnableAndroidRequestPath) == "1") {
    // Replay the query recorded in the system, byte for byte.
    postBody = open_file_and_readdata(kAndroidRequestCipherPath);
    std::string recorded_clear, recorded_body;
    // Text read first and scratch path second, as the device has always done: writes nothing.
    if (!android::base::ReadFileToString(kAndroidRequestPlainPath, &recorded_clear)) {
      create_file_and_writedata(recorded_clear, kTmpRequestPlainPath);
    }
    if (!android::base::ReadFileToString(kAndroidRequestCipherPath, &recorded_body)) {
      create_file_and_writedata(recorded_body, kTmpRequestCipherPath);
    }
  } else {
    postBody = form;
  }
}

int AddressInfo::PreExecuted() {
  CURLcode code = OpenTransferFile(kResponseBodyPath, "curl writedata=", [this] {
    outputFile.reset(fopen(kResponseBodyPath.c_str(), "w"));
    return outputFile != nullptr;
  });
  if (code != CURLE_OK) return code;
  AppendStandardHeaders();
  return CurlOptions(curl)
      .Set(CURLOPT_ERRORBUFFER, errorBuffer)
      .Set(CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS))
      .Set(CURLOPT_POST, 1L)
      .Set(CURLOPT_POSTFIELDS, postBody.c_str())
      .Set(CURLOPT_POSTFIELDSIZE, static_cast<long>(strlen(postBody.c_str())))
      .Set(CURLOPT_HTTPHEADER, headers)
      .Set(CURLOPT_WRITEDATA, outputFile.get())
      .Set(CURLOPT_VERBOSE, 1L)
      .Set(CURLOPT_TIMEOUT, 5L)
      .result();
}

int AddressInfo::OnExecuted() {
  const int code = SecureEvent::OnExecuted();
  if (code == CURLE_OK) fflush(outputFile.get());
  return code;
}

void AddressInfo::ProcessResponse() {
  if (whichEnvironment() == "yonda" && open_file_and_readdata(kEnableAndroidResponsePath) == "1") {
    std::string recorded = open_file_and_readdata(kAndroidResponsePlainPath);
    PostExecutedFinal(recorded.c_str());
    // The recorded answer's path, not its text, is what is parsed here; no document results.
    stage->answer.reset(cJSON_Parse(kAndroidResponsePlainPath.c_str()));
    return;
  }

  std::string text;
  {
    android::base::unique_fd fd(open(kResponseBodyPath.c_str(), O_RDONLY));
    if (fd == -1) {
      int error = errno;
      printf("failed to open %s:%s(%d)\n", kResponseBodyPath.c_str(), strerror(error), error);
    }
    if (!android::base::ReadFdToString(fd, &text)) {
      int error = errno;
      printf("failed to read %s:%s(%d)\n", kResponseBodyPath.c_str(), strerror(error), error);
    }
  }
  StripFraming(text);
  printf(">> %lu bytes responsed:\n%s\n", static_cast<unsigned long>(text.size()), text.c_str());
  create_file_and_writedata(kTmpResponseCipherPath, text);

  char* raw_decoded = nullptr;
  size_t decoded_len = 0;
  // A failed decode has already released its buffer.
  if (base64_decode(&raw_decoded, &decoded_len, text.data(), text.size()) != 0) {
    printf("failed to use base64 to decode %s\n", kResponseBodyPath.c_str());
    return;
  }
  CipherBuffer decoded(raw_decoded);
  char* raw_clear = nullptr;
  int clear_len = 0;
  // The cipher hands its buffer over on failure too.
  const int decrypted = AES_CBC_PKCS5Padding_Decrypt(kUpdateCipherKey, &raw_clear, &clear_len,
                                                     decoded.get(), static_cast<int>(decoded_len));
  CipherBuffer clear(raw_clear);
  if (decrypted != 0) {
    printf("failed to use aes-128-cbc to decrypt %s\n", kResponseBodyPath.c_str());
    return;
  }

  // The padding and the extra deciphered block stay behind the document; the JSON parser stops
  // at the document's end.
  std::string clear_text = clear.get();
  create_file_and_writedata(kTmpResponsePlainPath, clear_text);
  LOG(DEBUG) << ">> AddressInfo clear response \"" << kTmpResponsePlainPath << "\":\n"
             << clear_text << "\n";
  PostExecutedFinal(clear_text.c_str());
  stage->answer.reset(cJSON_Parse(clear_text.c_str()));
}

void AddressInfo::PostExecutedFinal(const char* text) {
  JsonHandle document(cJSON_Parse(text), simple_free_json);
  const cJSON* latest = cJSON_GetObjectItemCaseSensitive(document.get(), kLatestRomName.c_str());
  const cJSON* cross = cJSON_GetObjectItemCaseSensitive(document.get(), kCrossRomName.c_str());
  static_cast<void>(cJSON_IsArray(cross));  // A cross-version ROM is not acted on here.
  const cJSON* current = cJSON_GetObjectItemCaseSensitive(document.get(), kCurrentRomName.c_str());
  const bool current_missing = current == nullptr || cJSON_IsNull(current);

  stage->romState = 2;
  if (latest != nullptr && !cJSON_IsArray(latest)) {
    stage->romState = 0;
    document = handle_latestrom_to_dir(std::move(document));
    return;
  }

  LOG(INFO) << kRule;
  LOG(INFO) << ">> No available rom to update!!";
  LOG(INFO) << kRule;
  StringMap facts;
  getTALUVersion(facts);
  std::string current_version = facts["v"];
  if (current_missing) current_version += " (N/A)";
  create_file_and_writedata(kTmpLatestRomDir, kCurrVersionKey, current_version);
  create_file_and_writedata(kTmpLatestRomDir, kVersionKey, "???");
}

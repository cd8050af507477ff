/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "SecureEvent"

#include "request/secure_event.h"

#include <android-base/logging.h>
#include <arpa/inet.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "request/download_task.h"
#include "yondatools/yonda-dgq/dgqprotocal.h"
#include "yondatools/yonda-root/jsondump.h"
#include "yondatools/yonda-root/secure_mount.h"
#include "yondatools/yonda-update/dir2url.h"

namespace {

constexpr size_t kErrorBufferSize = 256;
// inet_ntop's buffer: room for a dotted IPv4 address and its terminating zero.
constexpr size_t kAddressTextSize = 16;
// Where the international update host is reached when the resolver gives no host entry.
constexpr char kFixedResolve[] = BUNDLERUN_INTL_UPDATE_HOST ":80:" BUNDLERUN_FALLBACK_IPV4;

}  // namespace

SecureEvent::SecureEvent() {
  SecureEvent::InitResource();
  // During construction this installs the base entries; a task that adds its own calls its
  // InitCbmap again from its constructor.
  InitCbmap();
}

SecureEvent::~SecureEvent() {
  SecureEvent::releaseResource();
}

int SecureEvent::Executed(DownloadTask* task_driver) {
  driver = task_driver;
  int code = PreExecuted();
  if (code != CURLE_OK) return code;
  code = OnExecuted();
  if (code != CURLE_OK) return code;
  return PostExecuted();
}

int SecureEvent::PreExecuted() {
  return CURLE_OK;
}

int SecureEvent::OnExecuted() {
  return CURLE_OK;
}

int SecureEvent::PostExecuted() {
  report_status(getDescriptor());
  jsondump();
  LOG(DEBUG) << ">> SecureEvent::PostExecuted";
  return CURLE_OK;
}

void SecureEvent::InitCbmap() {
  SetCallback(OutcomeKey(CURLE_OK), [this](DownloadStatus status) {
    status_channel::WriteSuccess(driver->writeStream, status);
    RunNextTask("this is the last task, byebye");
    return true;
  });
  // The base does not retry; a task that wants to installs its own entry.
  SetCallback(OutcomeKey(CURLE_COULDNT_RESOLVE_HOST), [this](DownloadStatus) {
    LOG(ERROR) << "operator()" << errorBuffer << "(" << CURLE_COULDNT_RESOLVE_HOST << "), retry";
    return false;
  });
  SetCallback(OutcomeKey(CURLE_OPERATION_TIMEDOUT), [this](DownloadStatus status) {
    status_channel::WriteTimeout(driver->writeStream, status);
    return false;
  });
}

void SecureEvent::InitResource() {
  errorBuffer = static_cast<char*>(calloc(kErrorBufferSize, 1));
  curl = curl_easy_init();
}

void SecureEvent::releaseResource() {
  curl_slist_free_all(headers);
  headers = nullptr;
  curl_slist_free_all(resolveList);
  resolveList = nullptr;
  curl_easy_cleanup(curl);
  curl = nullptr;
  free(errorBuffer);
  errorBuffer = nullptr;
}

void SecureEvent::dgqstub(CURLcode code) {
  std::map<std::string, std::string> event = {
      {"download_reason", ""},
      {"download_status", std::to_string(code)},
  };
  yondadgq::dgq_write_data(event);
}

OutcomeCallback SecureEvent::handleCurlCode(CURLcode code) {
  dgqstub(code);
  auto it = cbmap.find(OutcomeKey(code));
  if (it != cbmap.end()) return it->second;
  return [this, code](DownloadStatus status) {
    LOG(ERROR) << "in " << status << ", function for " << code << " has not been registed";
    status_channel::WriteFailure(driver->writeStream, status, code);
    return false;
  };
}

void SecureEvent::DnsResolveCallback(void*, int status, int, hostent* host) {
  LOG(INFO) << ">> Name resolved(" << status << ")...";
  if (host == nullptr) {
    LOG(WARNING) << "No hostent resolved, and try the fixed: " << kFixedResolve;
    resolveList = curl_slist_append(resolveList, kFixedResolve);
    curl_easy_setopt(curl, CURLOPT_RESOLVE, resolveList);
  } else if (status != 0) {
    LOG(ERROR) << "lookup failed: " << status << "\n";
    return;
  } else {
    LOG(INFO) << "lookup h_name: " << host->h_name;
    // Only this resolution's addresses count: an earlier host's are never connected to.
    addresses.clear();
    for (char** address = host->h_addr_list; *address != nullptr; ++address) {
      char text[kAddressTextSize] = {};
      if (inet_ntop(host->h_addrtype, *address, text, sizeof(text)) != nullptr) {
        addresses.emplace_back(text);
      }
    }
    // The server still learns the name it is asked for; the transfer goes to the address.
    hostHeader = "Host: " + url.host;
    headers = curl_slist_append(headers, hostHeader.c_str());
    if (!addresses.empty()) {
      url.host = addresses.front();
      addresses.pop_front();
    }
  }
  int code = Executed(driver);
  OutcomeCallback callback = handleCurlCode(static_cast<CURLcode>(code));
  callback(index);
}

void SecureEvent::SetCallback(DownloadStatus key, OutcomeCallback callback) {
  cbmap[key].swap(callback);
}

void SecureEvent::RunNextTask(const std::string& last_words) {
  if (next != nullptr) {
    next->run();
  } else {
    LOG(INFO) << last_words;
  }
}

void SecureEvent::AppendStandardHeaders() {
  // "Cache-Contorl", spelt this way, is the header the update servers expect.
  headers = curl_slist_append(headers, "Cache-Contorl:no-cache");
  headers = curl_slist_append(headers, "Cookie:");
  headers = curl_slist_append(headers, "Content-type:application/x-www-form-urlencoded");
}

CURLcode SecureEvent::Perform(const std::string& target) {
  CURLcode code = curl_easy_setopt(curl, CURLOPT_URL, target.c_str());
  if (code != CURLE_OK) return code;
  return curl_easy_perform(curl);
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "SecureEvent"

#include "request/secure_event.h"

#include <android-base/logging.h>
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <map>
#include <string>

#include "yondatools/yonda-dgq/dgqprotocal.h"
#include "yondatools/yonda-root/jsondump.h"
#include "yondatools/yonda-update/dir2url.h"

namespace {

// inet_ntop's buffer: room for a dotted IPv4 address and its terminating zero.
constexpr size_t kAddressTextSize = 16;
// Where the international update host is reached when the resolver gives no host entry.
constexpr char kFixedResolve[] = BUNDLERUN_INTL_UPDATE_HOST ":80:" BUNDLERUN_FALLBACK_IPV4;

}  // namespace

SecureEvent::Log::Log(const SecureEvent& task, android::base::LogSeverity severity, int error,
                      const char* file, unsigned line)
    : task_(task),
      severity_(severity),
      error_(error),
      file_(file),
      line_(line),
      savedErrno_(errno) {}

SecureEvent::Log::~Log() {
  if (android::base::ShouldLog(severity_, task_.logTag_)) {
    android::base::LogMessage(file_, line_, severity_, task_.logTag_, error_).stream()
        << text_.str();
  }
  errno = savedErrno_;
}

SecureEvent::SecureEvent(const char* tag) : logTag_(tag) {
  SecureEvent::InitResource();
  // During construction this installs the base entries; a task that adds its own calls its
  // InitCbmap again from its constructor.
  InitCbmap();
}

SecureEvent::~SecureEvent() {
  SecureEvent::releaseResource();
}

void SecureEvent::run() {
  LogBanner();
  std::optional<URLWrapper> address = Address();
  if (!address) return;
  LogAddress(*address);
  Prepare(*address);
  Resolve(*address);
}

int SecureEvent::Executed(StageRecord* task_stage) {
  stage = task_stage;
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
  CURLcode code = SetTransferUrl();
  if (code != CURLE_OK) return code;
  return curl_easy_perform(curl);
}

int SecureEvent::PostExecuted() {
  Log(*this, android::base::DEBUG) << ">> " << getDescriptor() << "::PostExecuted";
  ProcessResponse();
  report_status(getDescriptor());
  jsondump();
  LOG(DEBUG) << ">> SecureEvent::PostExecuted";
  return CURLE_OK;
}

void SecureEvent::InitCbmap() {
  SetCallback(OutcomeKey(CURLE_OK), [this](DownloadStatus status) {
    status_channel::WriteSuccess(stage->status, status);
    RunNextTask("this is the last task, byebye");
    return true;
  });
  // The base does not retry; a task that wants to installs its own entry.
  SetCallback(OutcomeKey(CURLE_COULDNT_RESOLVE_HOST), [this](DownloadStatus) {
    LOG(ERROR) << "operator()" << errorBuffer << "(" << CURLE_COULDNT_RESOLVE_HOST << "), retry";
    return false;
  });
  SetCallback(OutcomeKey(CURLE_OPERATION_TIMEDOUT), [this](DownloadStatus status) {
    status_channel::WriteTimeout(stage->status, status);
    return false;
  });
}

void SecureEvent::InitResource() {
  memset(errorBuffer, 0, sizeof(errorBuffer));
  curl = curl_easy_init();
}

void SecureEvent::releaseResource() {
  curl_slist_free_all(headers);
  headers = nullptr;
  curl_slist_free_all(resolveList);
  resolveList = nullptr;
  curl_easy_cleanup(curl);
  curl = nullptr;
  memset(errorBuffer, 0, sizeof(errorBuffer));
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
    status_channel::WriteFailure(stage->status, status, code);
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
  Resolved();
}

void SecureEvent::Resolved() {
  int code = Executed(stage);
  OutcomeCallback callback = handleCurlCode(static_cast<CURLcode>(code));
  callback(index);
}

void SecureEvent::Resolve(const URLWrapper& address) {
  url = address;
  resolveName(url, ResolverCallback());
}

CURLcode SecureEvent::SetTransferUrl() {
  const std::string target = url.url();
  Log(*this, android::base::DEBUG) << ">> " << getDescriptor() << "::OnExecuted, url=" << target;
  return curl_easy_setopt(curl, CURLOPT_URL, target.c_str());
}

void SecureEvent::LogBanner(const char* file, unsigned line) {
  Log(*this, android::base::INFO, -1, file, line) << ">> " << getDescriptor() << " is running...";
}

void SecureEvent::LogAddress(const URLWrapper& address) {
  Log(*this, android::base::DEBUG)
      << getDescriptor() << " url " << address.scheme << " " << address.host << " " << address.path;
}

CURLcode SecureEvent::OpenTransferFile(const std::string& path, const std::string& what,
                                       const std::function<bool()>& open, const char* file,
                                       unsigned line) {
  const bool opened = open();
  const int open_error = errno;
  Log(*this, android::base::DEBUG, -1, file, line)
      << ">> " << getDescriptor() << "::PreExecuted, " << what << path;
  if (opened) return CURLE_OK;
  Log(*this, android::base::ERROR, open_error, file, line) << "failed to open " << path;
  return CURLE_WRITE_ERROR;
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

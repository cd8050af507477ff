/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The network task base. A task resolves its host through the platform resolver, runs its three
// steps on one libcurl easy handle (set-up, transfer, local work), turns the transfer's outcome
// into a callback and hands over to the next task of the chain from there, so a whole stage runs
// as one nest of calls on the main thread.

#pragma once

#include <curl/curl.h>
#include <netdb.h>
#include <stdint.h>

#include <functional>
#include <list>
#include <string>
#include <unordered_map>

#include "common/url_wrapper.h"
#include "request/status_channel.h"

class DownloadTask;

// What a task does with an outcome; it receives the task's index and returns true when the
// chain went on.
using OutcomeCallback = std::function<bool(DownloadStatus)>;

// Returns the callback map key of a transfer outcome.
constexpr DownloadStatus OutcomeKey(CURLcode code) {
  return static_cast<DownloadStatus>(code);
}

class SecureEvent {
 public:
  SecureEvent();
  SecureEvent(const SecureEvent&) = delete;
  SecureEvent& operator=(const SecureEvent&) = delete;

  // Logs the banner, builds the task's address and starts name resolution.
  virtual void run() = 0;
  // Returns the task's name, written to the scratch status file when it has finished.
  virtual std::string getDescriptor() = 0;
  // Runs PreExecuted, OnExecuted and PostExecuted; returns the first non-zero CURLcode.
  virtual int Executed(DownloadTask* driver);
  // Sets the transfer up.
  virtual int PreExecuted();
  // Performs the transfer.
  virtual int OnExecuted();
  // Does the task's work on what was received, then records the status and the dump.
  virtual int PostExecuted();
  // Installs the outcome callbacks.
  virtual void InitCbmap();
  // Makes a fresh error buffer and easy handle (after releaseResource).
  virtual void InitResource();
  // Releases the header lists, the easy handle and the error buffer.
  virtual void releaseResource();
  // Records the outcome as a diagnostics event.
  virtual void dgqstub(CURLcode code);
  // Returns the callback for an outcome, after recording it.
  virtual OutcomeCallback handleCurlCode(CURLcode code);
  // Continues the task once its host is resolved: addresses, transfer, outcome callback.
  virtual void DnsResolveCallback(void* arg, int status, int timeouts, hostent* host);
  virtual ~SecureEvent();

  // The easy handle, its lists and its error buffer are owned raw on purpose: a retry or a
  // redirect releases and remakes them in the middle of the task's life.
  char* errorBuffer = nullptr;
  curl_slist* headers = nullptr;
  curl_slist* resolveList = nullptr;
  CURL* curl = nullptr;
  URLWrapper url;
  int64_t reserved = 0;
  DownloadTask* driver = nullptr;
  SecureEvent* next = nullptr;
  DownloadStatus index = SYNC_SERVER_TIME;
  std::unordered_map<DownloadStatus, OutcomeCallback> cbmap;
  std::list<std::string> addresses;
  std::string hostHeader;

 protected:
  // Installs |callback| for |key|, replacing an entry that is already there.
  void SetCallback(DownloadStatus key, OutcomeCallback callback);
  // Appends the three request headers that every request of the boot environment carries.
  void AppendStandardHeaders();
  // Starts the next task of the chain, or logs |last_words| when this task is the last.
  void RunNextTask(const std::string& last_words);
  // Sets |target| as the transfer URL and performs the transfer. Returns its CURLcode.
  CURLcode Perform(const std::string& target);
};

// Adapts the resolver's plain function pointer to the most recent task of class T.
template <typename T>
struct EventWrapper {
  static T* instance;
  static void fake_callback(void* arg, int status, int timeouts, hostent* host) {
    instance->DnsResolveCallback(arg, status, timeouts, host);
  }
  // Makes |task| the one that receives resolver callbacks (a task's constructor does this).
  static void Attach(T* task) { instance = task; }
  // Forgets |task| when it is the one registered (a task's destructor does this).
  static void Detach(T* task) {
    if (instance == task) instance = nullptr;
  }
};
template <typename T>
T* EventWrapper<T>::instance = nullptr;

// Sets libcurl options in order and keeps the first failure.
class CurlOptions {
 public:
  explicit CurlOptions(CURL* curl) : curl_(curl) {}
  template <typename T>
  CurlOptions& Set(CURLoption option, T value) {
    if (result_ == CURLE_OK) result_ = curl_easy_setopt(curl_, option, value);
    return *this;
  }
  CURLcode result() const { return result_; }

 private:
  CURL* curl_;
  CURLcode result_ = CURLE_OK;
};

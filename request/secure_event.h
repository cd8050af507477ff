/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The network task base. A task resolves its host through the platform resolver, runs its three
// steps on one libcurl easy handle (set-up, transfer, local work), turns the transfer's outcome
// into a callback and hands over to the next task of the chain from there, so a whole stage runs
// as one nest of calls on the main thread. A task writes only its request's options and its work
// on the response; the steps' log lines, the transfer and the hand-over are the base's.

#pragma once

#include <android-base/logging.h>
#include <curl/curl.h>
#include <netdb.h>
#include <stdint.h>

#include <functional>
#include <list>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>

#include "common/url_wrapper.h"
#include "request/stage_record.h"
#include "request/status_channel.h"
#include "yonda_resolver.h"

// What a task does with an outcome; it receives the task's index and returns true when the
// chain went on.
using OutcomeCallback = std::function<bool(DownloadStatus)>;

// Returns the callback map key of a transfer outcome.
constexpr DownloadStatus OutcomeKey(CURLcode code) {
  return static_cast<DownloadStatus>(code);
}

class SecureEvent {
 public:
  SecureEvent(const SecureEvent&) = delete;
  SecureEvent& operator=(const SecureEvent&) = delete;

  // Logs the banner, builds the task's address, logs it, prepares the request and starts name
  // resolution; the resolver continues the task before this returns.
  virtual void run();
  // Returns the task's name: the name its log lines give, written to the scratch status file
  // when it has finished.
  virtual std::string getDescriptor() = 0;
  // Runs PreExecuted, OnExecuted and PostExecuted; returns the first non-zero CURLcode.
  virtual int Executed(StageRecord* stage);
  // Sets the transfer up.
  virtual int PreExecuted();
  // Performs the transfer on the task's address.
  virtual int OnExecuted();
  // Does the task's work on the response, then records the status and the dump.
  virtual int PostExecuted();
  // Installs the outcome callbacks.
  virtual void InitCbmap();
  // Makes a fresh error buffer and easy handle (after releaseResource).
  virtual void InitResource();
  // Releases the header lists and the easy handle and clears the error buffer.
  virtual void releaseResource();
  // Records the outcome as a diagnostics event.
  virtual void dgqstub(CURLcode code);
  // Returns the callback for an outcome, after recording it.
  virtual OutcomeCallback handleCurlCode(CURLcode code);
  // Continues the task once its host is resolved: addresses, then Resolved().
  virtual void DnsResolveCallback(void* arg, int status, int timeouts, hostent* host);
  virtual ~SecureEvent();

  // The easy handle and its lists are owned raw on purpose: a retry or a redirect releases and
  // remakes them in the middle of the task's life.
  char errorBuffer[CURL_ERROR_SIZE] = {};
  curl_slist* headers = nullptr;
  curl_slist* resolveList = nullptr;
  CURL* curl = nullptr;
  URLWrapper url;
  // Lent by the driver for the task's whole life.
  StageRecord* stage = nullptr;
  SecureEvent* next = nullptr;
  DownloadStatus index = SYNC_SERVER_TIME;
  std::unordered_map<DownloadStatus, OutcomeCallback> cbmap;
  std::list<std::string> addresses;
  std::string hostHeader;

 protected:
  // |tag| is the task's own: the log lines of its steps carry it.
  explicit SecureEvent(const char* tag);

  // One log record of the task, with the task's tag and the source line that asked for it,
  // written when the line ends (at the end of the full expression). errno is kept, as every log
  // statement keeps it.
  class Log {
   public:
    // |error| >= 0 appends ": " and its system error text.
    Log(const SecureEvent& task, android::base::LogSeverity severity, int error = -1,
        const char* file = __builtin_FILE(), unsigned line = __builtin_LINE());
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    template <typename T>
    Log& operator<<(const T& value) {
      text_ << value;
      return *this;
    }

   private:
    const SecureEvent& task_;
    android::base::LogSeverity severity_;
    int error_;
    const char* file_;
    unsigned line_;
    int savedErrno_;
    std::ostringstream text_;
  };

  // Returns the address of the task's request, or nothing when the task ends without one (it
  // then has reported what it had to).
  virtual std::optional<URLWrapper> Address() { return std::nullopt; }
  // Prepares the request once its address is logged, before the host is resolved.
  virtual void Prepare(const URLWrapper& /* address */) {}
  // Returns the resolver's callback for the task's class.
  virtual ResolveCallback ResolverCallback() const = 0;
  // The host is resolved: runs the transfer and the callback for its outcome.
  virtual void Resolved();
  // The task's work on a response that arrived, before the status and the dump are recorded.
  virtual void ProcessResponse() {}
  // Makes |address| the task's address and resolves its host; the resolver continues the task
  // before this returns.
  void Resolve(const URLWrapper& address);

  // Logs the transfer step with the task's address and makes it the transfer URL.
  CURLcode SetTransferUrl();
  // Logs ">> <name> is running...", naming the caller's source line.
  void LogBanner(const char* file = __builtin_FILE(), unsigned line = __builtin_LINE());
  // Logs "<name> url <scheme> <host> <path>".
  void LogAddress(const URLWrapper& address);
  // Opens the transfer's file through |open| and logs the step with |what| and the path. Returns
  // CURLE_OK, or CURLE_WRITE_ERROR with the reason logged when the file cannot be opened. The
  // records name the caller's source line.
  CURLcode OpenTransferFile(const std::string& path, const std::string& what,
                            const std::function<bool()>& open, const char* file = __builtin_FILE(),
                            unsigned line = __builtin_LINE());
  // Installs |callback| for |key|, replacing an entry that is already there.
  void SetCallback(DownloadStatus key, OutcomeCallback callback);
  // Appends the three request headers that every request of the boot environment carries.
  void AppendStandardHeaders();
  // Starts the next task of the chain, or logs |last_words| when this task is the last.
  void RunNextTask(const std::string& last_words);

 private:
  const char* logTag_;
};

template <typename T>
class NetworkTask;

// Adapts the resolver's plain function pointer to the most recent task of class T.
template <typename T>
struct EventWrapper {
  static NetworkTask<T>* instance;
  static void fake_callback(void* arg, int status, int timeouts, hostent* host) {
    instance->DnsResolveCallback(arg, status, timeouts, host);
  }
};
template <typename T>
NetworkTask<T>* EventWrapper<T>::instance = nullptr;

// A task of class T: while it lives it is the one that receives the resolver's callbacks for T
// (only one task of each class lives at a time).
template <typename T>
class NetworkTask : public SecureEvent {
 protected:
  explicit NetworkTask(const char* tag) : SecureEvent(tag) { EventWrapper<T>::instance = this; }
  ~NetworkTask() override {
    if (EventWrapper<T>::instance == this) EventWrapper<T>::instance = nullptr;
  }
  ResolveCallback ResolverCallback() const override { return EventWrapper<T>::fake_callback; }
};

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

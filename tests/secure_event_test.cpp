/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The task base driven directly: resolver outcomes and transfer outcomes, with a task whose
// transfer result is chosen by the test.

#include "request/secure_event.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "harness/harness.h"
#include "request/bundlerun_entry.h"
#include "request/download_task.h"

namespace {

using harness::LogCapture;
using harness::ReadFile;

class ScriptedTask : public SecureEvent {
 public:
  void run() override { ++runs; }
  std::string getDescriptor() override { return "ScriptedTask"; }
  int OnExecuted() override {
    ++transfers;
    return outcome;
  }
  int outcome = CURLE_OK;
  int runs = 0;
  int transfers = 0;
};

// Collects what a task writes on the status channel.
class StatusStream {
 public:
  StatusStream() : stream_(open_memstream(&buffer_, &size_)) {}
  ~StatusStream() {
    fclose(stream_);
    free(buffer_);
  }
  FILE* get() { return stream_; }
  std::string bytes() {
    fflush(stream_);
    return std::string(buffer_, size_);
  }

 private:
  char* buffer_ = nullptr;
  size_t size_ = 0;
  FILE* stream_;
};

class SecureEventTest : public harness::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    prepare_and_correct_dir();
    task_.driver = &driver_;
    task_.index = ADDRESS_INFO;
    task_.url = URLWrapper("http://", "update.example", "", "/q");
  }
  StatusStream status_;
  DownloadTask driver_{true, status_.get(), nullptr};
  ScriptedTask task_;
};

// A host entry for |name| with the given IPv4 addresses.
struct FakeHost {
  FakeHost(const char* name, const std::vector<const char*>& ips) : name_(name) {
    for (const char* ip : ips) {
      in_addr addr;
      inet_pton(AF_INET, ip, &addr);
      addrs_.push_back(addr);
    }
    for (in_addr& addr : addrs_) pointers_.push_back(reinterpret_cast<char*>(&addr));
    pointers_.push_back(nullptr);
    entry_.h_name = name_.data();
    entry_.h_aliases = &null_alias_;
    entry_.h_addrtype = AF_INET;
    entry_.h_length = sizeof(in_addr);
    entry_.h_addr_list = pointers_.data();
  }
  hostent* get() { return &entry_; }
  std::string name_;
  std::vector<in_addr> addrs_;
  std::vector<char*> pointers_;
  char* null_alias_ = nullptr;
  hostent entry_{};
};

TEST_F(SecureEventTest, FailedLookupWithAHostEntryEndsTheChainSilently) {
  FakeHost host("update.example", {"127.0.0.2"});
  ScriptedTask next;
  task_.next = &next;
  LogCapture log;
  task_.DnsResolveCallback(&task_.url, 4, 0, host.get());
  EXPECT_EQ(0, task_.transfers);
  EXPECT_EQ(0, next.runs);
  EXPECT_EQ("", status_.bytes());
  EXPECT_EQ("I:>> Name resolved(4)...\nE:lookup failed: 4\nE:\n", log.text());
}

TEST_F(SecureEventTest, MissingHostEntryFallsBackToTheFixedInternationalAddress) {
  LogCapture log;
  task_.DnsResolveCallback(&task_.url, 4, 0, nullptr);
  const std::string fixed = std::string(TEST_INTL_UPDATE_HOST) + ":80:" + TEST_FALLBACK_IPV4;
  ASSERT_NE(nullptr, task_.resolveList);
  EXPECT_EQ(fixed, task_.resolveList->data);
  EXPECT_EQ("update.example", task_.url.host);
  EXPECT_EQ(1, task_.transfers);
  EXPECT_NE(std::string::npos,
            log.text().find("W:No hostent resolved, and try the fixed: " + fixed + "\n"));
}

TEST_F(SecureEventTest, OutcomeWithoutACallbackIsReportedByNumber) {
  ScriptedTask next;
  task_.next = &next;
  task_.outcome = CURLE_SSL_CONNECT_ERROR;
  FakeHost host("update.example", {"127.0.0.2"});
  LogCapture log;
  task_.DnsResolveCallback(&task_.url, 0, 0, host.get());
  EXPECT_EQ("1:f:35\n", status_.bytes());
  EXPECT_EQ(0, next.runs);
  EXPECT_NE(std::string::npos, log.text().find("E:in 1, function for 35 has not been registed\n"));
  EXPECT_EQ("35", ReadFile("/tmp/dgq/events/download_status"));
}

}  // namespace

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The task base driven directly, for the resolver outcome a local server cannot produce: a
// failed lookup that still hands over a host entry.

#include "request/secure_event.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "harness/harness.h"

namespace {

class ScriptedTask : public SecureEvent {
 public:
  ScriptedTask() : SecureEvent("ScriptedTask") {}
  void run() override { ++runs; }
  ResolveCallback ResolverCallback() const override { return nullptr; }
  std::string getDescriptor() override { return "ScriptedTask"; }
  int OnExecuted() override {
    ++transfers;
    return CURLE_OK;
  }
  int runs = 0;
  int transfers = 0;
};

TEST(SecureEventTest, FailedLookupWithAHostEntryEndsTheChainSilently) {
  char* status = nullptr;
  size_t status_size = 0;
  FILE* stream = open_memstream(&status, &status_size);
  StageRecord stage;
  stage.status = stream;
  ScriptedTask task, next;
  task.stage = &stage;
  task.index = ADDRESS_INFO;
  task.url = URLWrapper("http://", "update.example", "", "/q");
  task.next = &next;

  in_addr address;
  inet_pton(AF_INET, "127.0.0.2", &address);
  char* addresses[] = {reinterpret_cast<char*>(&address), nullptr};
  char* aliases[] = {nullptr};
  char name[] = "update.example";
  hostent host = {name, aliases, AF_INET, sizeof(address), addresses};

  harness::LogCapture log;
  task.DnsResolveCallback(&task.url, 4, 0, &host);
  EXPECT_EQ(0, task.transfers);
  EXPECT_EQ(0, next.runs);
  EXPECT_EQ("I:>> Name resolved(4)...\nE:lookup failed: 4\nE:\n", log.text());
  fclose(stream);
  EXPECT_EQ("", std::string(status, status_size));
  free(status);
}

}  // namespace

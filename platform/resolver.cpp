/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The resolver library on c-ares. c-ares reads /etc/hosts and /etc/resolv.conf like the
// device's resolver; the event loop runs here until the one answer has arrived, and the caller's
// callback runs after the channel is gone, with a copy of the host entry. The callback may start
// further resolutions (the next task of a chain), so nothing of this one is held while it runs.

#include <ares.h>
#include <sys/select.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "yonda_resolver.h"

namespace {

// A host entry that owns its strings and addresses.
class OwnedHostent {
 public:
  explicit OwnedHostent(const hostent& from) {
    name_ = from.h_name ? from.h_name : "";
    for (char** alias = from.h_aliases; alias && *alias; ++alias) aliases_.emplace_back(*alias);
    for (char** addr = from.h_addr_list; addr && *addr; ++addr) {
      addresses_.emplace_back(*addr, *addr + from.h_length);
    }
    for (std::string& alias : aliases_) alias_ptrs_.push_back(alias.data());
    alias_ptrs_.push_back(nullptr);
    for (std::string& address : addresses_) address_ptrs_.push_back(address.data());
    address_ptrs_.push_back(nullptr);
    entry_.h_name = name_.data();
    entry_.h_aliases = alias_ptrs_.data();
    entry_.h_addrtype = from.h_addrtype;
    entry_.h_length = from.h_length;
    entry_.h_addr_list = address_ptrs_.data();
  }
  OwnedHostent(const OwnedHostent&) = delete;
  OwnedHostent& operator=(const OwnedHostent&) = delete;

  hostent* get() { return &entry_; }

 private:
  std::string name_;
  std::vector<std::string> aliases_;
  std::vector<std::string> addresses_;
  std::vector<char*> alias_ptrs_;
  std::vector<char*> address_ptrs_;
  hostent entry_{};
};

struct Answer {
  bool done = false;
  int status = ARES_ENOTFOUND;
  int timeouts = 0;
  std::unique_ptr<OwnedHostent> host;
};

void OnHostAnswer(void* arg, int status, int timeouts, hostent* host) {
  auto* answer = static_cast<Answer*>(arg);
  answer->done = true;
  answer->status = status;
  answer->timeouts = timeouts;
  if (status == ARES_SUCCESS && host != nullptr)
    answer->host = std::make_unique<OwnedHostent>(*host);
}

struct ChannelDeleter {
  void operator()(ares_channel channel) const { ares_destroy(channel); }
};
using UniqueChannel = std::unique_ptr<std::remove_pointer_t<ares_channel>, ChannelDeleter>;

// Runs the channel's event loop until |answer| is in or nothing is left to wait for.
void RunEventLoop(ares_channel channel, const Answer& answer) {
  while (!answer.done) {
    fd_set readers, writers;
    FD_ZERO(&readers);
    FD_ZERO(&writers);
    int nfds = ares_fds(channel, &readers, &writers);
    if (nfds == 0) break;
    timeval tv;
    timeval* timeout = ares_timeout(channel, nullptr, &tv);
    select(nfds, &readers, &writers, nullptr, timeout);
    ares_process(channel, &readers, &writers);
  }
}

}  // namespace

void resolveName(URLWrapper& url, ResolveCallback callback) {
  static std::once_flag library_once;
  static int library_status = ARES_SUCCESS;
  std::call_once(library_once, [] { library_status = ares_library_init(ARES_LIB_INIT_ALL); });

  Answer answer;
  if (library_status != ARES_SUCCESS) {
    callback(&url, library_status, 0, nullptr);
    return;
  }
  {
    ares_channel raw_channel = nullptr;
    int status = ares_init(&raw_channel);
    if (status != ARES_SUCCESS) {
      callback(&url, status, 0, nullptr);
      return;
    }
    UniqueChannel channel(raw_channel);
    ares_gethostbyname(channel.get(), url.host.c_str(), AF_INET, OnHostAnswer, &answer);
    RunEventLoop(channel.get(), answer);
  }
  callback(&url, answer.status, answer.timeouts, answer.host ? answer.host->get() : nullptr);
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "mirror.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

constexpr size_t kMaxChunk = 64 * 1024;
constexpr size_t kMinThrottledChunk = 1024;
// How long a reset waits for the device to take in what was sent before it.
constexpr auto kResetDrain = std::chrono::seconds(2);

// One package body on its way to a device.
struct Transfer {
  Mirror* mirror;
  std::string file;
  int fd = -1;
  uint64_t start = 0;    // resume position the body starts at
  uint64_t length = 0;   // bytes announced in Content-Length
  uint64_t break_at = 0;  // bytes after which the transfer breaks; 0: never
  Mirror::Break how = Mirror::Break::kNone;
  int remote_port = -1;  // the connection, for a reset
  int local_port = -1;
  // When the next chunk of a throttled body is due.
  std::chrono::steady_clock::time_point due = std::chrono::steady_clock::now();
  ~Transfer() {
    if (fd >= 0) close(fd);
  }

  // Sends the next chunk at |offset| of the body; returns false to end the connection.
  bool Next(size_t offset, httplib::DataSink& sink) {
    if (break_at != 0 && offset >= break_at) {
      switch (how) {
        case Mirror::Break::kStall:
          mirror->Stall();
          break;
        case Mirror::Break::kReset:
          Mirror::Reset(remote_port, local_port);
          break;
        default:
          mirror->OnDropped(file, start + break_at, how == Mirror::Break::kVanish);
          break;
      }
      return false;
    }
    const uint64_t rate = mirror->rate();
    size_t chunk = kMaxChunk;
    if (rate != 0) chunk = std::clamp<size_t>(rate / 20, kMinThrottledChunk, kMaxChunk);
    chunk = std::min<uint64_t>(chunk, length - offset);
    if (break_at != 0) chunk = std::min<uint64_t>(chunk, break_at - offset);
    std::vector<char> buffer(chunk);
    ssize_t n = pread(fd, buffer.data(), chunk, start + offset);
    if (n <= 0 || !sink.write(buffer.data(), n)) return false;
    if (rate != 0) {
      // Each chunk is paced from the one before; time the device spent not reading (a pause)
      // is not made up for with a burst.
      due = std::max(due + std::chrono::microseconds(n * 1000000 / rate),
                     std::chrono::steady_clock::now());
      std::this_thread::sleep_until(due);
    }
    if (offset + n == length) mirror->OnCompleted(file);
    return true;
  }
};

}  // namespace

std::string Mirror::DirectoryFor(const std::string& host_header) const {
  std::string host = host_header.substr(0, host_header.find(':'));
  auto it = options_.mirrors.find(host);
  if (it != options_.mirrors.end()) return it->second;
  return options_.packages_dir;
}

uint64_t Mirror::ResumePosition(const std::string& file) {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = positions_.find(file);
  return it == positions_.end() ? options_.offset : it->second;
}

uint64_t Mirror::BreakAt(const std::string& file, uint64_t start, uint64_t end, Break* how) {
  std::lock_guard<std::mutex> guard(lock_);
  *how = Break::kNone;
  uint64_t at = 0;
  bool named = false;
  // The earliest break in this transfer wins. An offset named on the command line breaks the
  // one transfer that is to pass it; --drop-after breaks transfers as often as it is told.
  auto consider = [&](uint64_t offset, Break kind, bool once) {
    if (offset > start && offset < end && !(once && offsetsCut_.count(offset)) &&
        (at == 0 || offset - start < at)) {
      at = offset - start;
      *how = kind;
      named = once;
    }
  };
  if (options_.drop_after != 0 &&
      (options_.drop_times == 0 || dropped_[file] < options_.drop_times)) {
    consider(start + options_.drop_after, Break::kDrop, false);
  }
  for (uint64_t offset : options_.drop_at) consider(offset, Break::kDrop, true);
  if (options_.vanish_at) consider(*options_.vanish_at, Break::kVanish, true);
  if (options_.stall_at) consider(*options_.stall_at, Break::kStall, true);
  if (options_.reset_at) consider(*options_.reset_at, Break::kReset, true);
  if (named) offsetsCut_.insert(start + at);
  return at;
}

bool Mirror::Unavailable() {
  std::lock_guard<std::mutex> guard(lock_);
  if (unavailable_ >= options_.unavailable) return false;
  ++unavailable_;
  return true;
}

void Mirror::Stall() {
  std::unique_lock<std::mutex> lock(lock_);
  stalls_.wait_for(lock, std::chrono::hours(1), [this] { return released_; });
}

void Mirror::Release() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    released_ = true;
  }
  stalls_.notify_all();
}

void Mirror::Reset(int remote_port, int local_port) {
  // The connection's descriptor is the socket whose two ends are these ports.
  DIR* fds = opendir("/proc/self/fd");
  if (fds == nullptr) return;
  while (dirent* entry = readdir(fds)) {
    const int fd = atoi(entry->d_name);
    sockaddr_in peer{}, self{};
    socklen_t peer_size = sizeof(peer), self_size = sizeof(self);
    if (fd <= 2 || getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&self), &self_size) != 0 ||
        peer.sin_family != AF_INET || ntohs(peer.sin_port) != remote_port ||
        ntohs(self.sin_port) != local_port) {
      continue;
    }
    // What was sent reaches the device first, unless it does not read for a while.
    const auto give_up = std::chrono::steady_clock::now() + kResetDrain;
    int unacknowledged = 0;
    while (ioctl(fd, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0 &&
           std::chrono::steady_clock::now() < give_up) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Disconnecting a connected TCP socket sends a reset at once, and no FIN before it; the
    // descriptor stays the server's to close.
    sockaddr unspecified{};
    unspecified.sa_family = AF_UNSPEC;
    connect(fd, &unspecified, sizeof(unspecified));
  }
  closedir(fds);
}

void Mirror::OnDropped(const std::string& file, uint64_t position, bool vanish) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    positions_[file] = position;
    ++dropped_[file];
  }
  // Nothing more is accepted before the device sees this connection end.
  if (vanish && vanish_) vanish_();
}

void Mirror::OnCompleted(const std::string& file) {
  std::lock_guard<std::mutex> guard(lock_);
  positions_.erase(file);
}

void Mirror::Serve(const httplib::Request& request, httplib::Response& response) {
  const std::string& path = request.path;
  if (std::find(options_.not_found.begin(), options_.not_found.end(), path) !=
      options_.not_found.end()) {
    response.status = 404;
    return;
  }
  auto redirect = options_.redirects.find(path);
  if (redirect != options_.redirects.end()) {
    response.status = 302;
    response.set_header("Location", redirect->second);
    response.set_content("", "text/plain");
    return;
  }
  const std::string dir = DirectoryFor(request.get_header_value("Host"));
  if (dir.empty() || path.find("..") != std::string::npos) {
    response.status = dir.empty() ? 404 : 403;
    return;
  }

  // A mirror that is down answers the device's probe (HEAD) as it answers the download (GET).
  if (Unavailable()) {
    response.status = 503;
    response.set_content("unavailable\n", "text/plain");
    return;
  }
  const std::string file = dir + path;
  auto transfer = std::make_shared<Transfer>();
  transfer->fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (transfer->fd < 0 || fstat(transfer->fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    response.status = 404;
    return;
  }
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  transfer->mirror = this;
  transfer->file = file;
  struct stat held;
  transfer->start =
      !options_.remainder_of.empty()
          ? (stat(options_.remainder_of.c_str(), &held) == 0 ? std::min<uint64_t>(held.st_size, size)
                                                             : 0)
          : std::min(ResumePosition(file), size);
  transfer->length = size - transfer->start;
  if (request.method == "GET") {
    transfer->break_at = BreakAt(file, transfer->start, size, &transfer->how);
    transfer->remote_port = request.remote_port;
    transfer->local_port = request.local_port;
  }
  response.set_content_provider(transfer->length, "application/zip",
                                [transfer](size_t offset, size_t, httplib::DataSink& sink) {
                                  return transfer->Next(offset, sink);
                                });
}

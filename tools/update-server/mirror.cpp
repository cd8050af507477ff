/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "mirror.h"

#include <fcntl.h>
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

// One package body on its way to a device.
struct Transfer {
  Mirror* mirror;
  std::string file;
  int fd = -1;
  uint64_t start = 0;    // resume position the body starts at
  uint64_t length = 0;   // bytes announced in Content-Length
  uint64_t drop_at = 0;  // bytes after which the connection is cut; 0: never
  bool vanish = false;   // the server goes away with the cut
  // When the next chunk of a throttled body is due.
  std::chrono::steady_clock::time_point due = std::chrono::steady_clock::now();
  ~Transfer() {
    if (fd >= 0) close(fd);
  }

  // Sends the next chunk at |offset| of the body; returns false to end the connection.
  bool Next(size_t offset, httplib::DataSink& sink) {
    if (drop_at != 0 && offset >= drop_at) {
      mirror->OnDropped(file, start + drop_at, vanish);
      return false;
    }
    const uint64_t rate = mirror->rate();
    size_t chunk = kMaxChunk;
    if (rate != 0) chunk = std::clamp<size_t>(rate / 20, kMinThrottledChunk, kMaxChunk);
    chunk = std::min<uint64_t>(chunk, length - offset);
    if (drop_at != 0) chunk = std::min<uint64_t>(chunk, drop_at - offset);
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

uint64_t Mirror::CutAt(const std::string& file, uint64_t start, uint64_t end, bool* vanish) {
  std::lock_guard<std::mutex> guard(lock_);
  *vanish = false;
  uint64_t cut = 0;
  if (options_.drop_after != 0 && start + options_.drop_after < end &&
      (options_.drop_times == 0 || dropped_[file] < options_.drop_times)) {
    cut = options_.drop_after;
  }
  for (uint64_t offset : options_.drop_at) {
    if (offset > start && offset < end && !offsetsCut_.count(offset) &&
        (cut == 0 || offset - start < cut)) {
      cut = offset - start;
    }
  }
  const std::optional<uint64_t>& away = options_.vanish_at;
  if (away && *away > start && *away < end && (cut == 0 || *away - start <= cut)) {
    cut = *away - start;
    *vanish = true;
  }
  return cut;
}

void Mirror::OnDropped(const std::string& file, uint64_t position, bool vanish) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    positions_[file] = position;
    ++dropped_[file];
    offsetsCut_.insert(position);
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
  transfer->start = std::min(ResumePosition(file), size);
  transfer->length = size - transfer->start;
  if (request.method == "GET") {
    transfer->drop_at = CutAt(file, transfer->start, size, &transfer->vanish);
  }
  response.set_content_provider(transfer->length, "application/zip",
                                [transfer](size_t offset, size_t, httplib::DataSink& sink) {
                                  return transfer->Next(offset, sink);
                                });
}

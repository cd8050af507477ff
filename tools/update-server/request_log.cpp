/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "request_log.h"

#include <cjson/cJSON.h>
#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

namespace {

// Connection facts that the HTTP library files among the headers; the device did not send them.
constexpr const char* kPseudoHeaders[] = {"LOCAL_ADDR", "LOCAL_PORT", "REMOTE_ADDR", "REMOTE_PORT"};

bool IsPseudoHeader(const std::string& name) {
  for (const char* pseudo : kPseudoHeaders) {
    if (name == pseudo) return true;
  }
  return false;
}

struct JsonDeleter {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};

}  // namespace

void RequestLog::Append(const httplib::Request& request, const std::optional<std::string>* query) {
  if (path_.empty()) return;
  std::unique_ptr<cJSON, JsonDeleter> entry(cJSON_CreateObject());
  // Whole microseconds, as the stamps of the server's messages show them.
  cJSON_AddNumberToObject(entry.get(), "t", round(clock_.Seconds() * 1e6) / 1e6);
  cJSON_AddStringToObject(entry.get(), "wall", DeskClock::WallTime().c_str());
  cJSON_AddStringToObject(entry.get(), "method", request.method.c_str());
  cJSON_AddStringToObject(entry.get(), "path", request.path.c_str());
  cJSON_AddStringToObject(entry.get(), "host", request.get_header_value("Host").c_str());
  cJSON_AddStringToObject(entry.get(), "local", request.local_addr.c_str());
  cJSON* headers = cJSON_AddArrayToObject(entry.get(), "headers");
  for (const auto& [name, value] : request.headers) {
    if (IsPseudoHeader(name)) continue;
    cJSON* pair = cJSON_CreateArray();
    cJSON_AddItemToArray(pair, cJSON_CreateString(name.c_str()));
    cJSON_AddItemToArray(pair, cJSON_CreateString(value.c_str()));
    cJSON_AddItemToArray(headers, pair);
  }
  cJSON_AddStringToObject(entry.get(), "body", request.body.c_str());
  if (query != nullptr) {
    cJSON* form = cJSON_AddObjectToObject(entry.get(), "form");
    for (const auto& [name, value] : request.params) {
      cJSON_AddStringToObject(form, name.c_str(), value.c_str());
    }
    if (*query) {
      cJSON_AddStringToObject(entry.get(), "query", (*query)->c_str());
    } else {
      cJSON_AddNullToObject(entry.get(), "query");
    }
  }

  std::unique_ptr<char, decltype(&free)> line(cJSON_PrintUnformatted(entry.get()), free);
  std::lock_guard<std::mutex> guard(lock_);
  std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path_.c_str(), "a"), fclose);
  if (!file) {
    fprintf(stderr, "%s%s: %s\n", clock_.MessagePrefix().c_str(), path_.c_str(), strerror(errno));
    return;
  }
  fprintf(file.get(), "%s\n", line.get());
}

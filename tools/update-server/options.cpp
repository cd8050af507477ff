/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "options.h"

#include <stdlib.h>

#include <functional>

const char kUsage[] = R"(bundlerun-update-server [OPTIONS]
Plays the update server and the package mirrors of a device on a desk. It answers every request
whatever its Host header (the hosts file of the sandbox points the update hosts and the mirror
names here).

General
  --listen ADDR:PORT     address to listen on (default 127.0.0.1:80)
  --log FILE             append one JSON line per request received: method, path, host, the
                         local address it arrived at, headers, body, and for the update query
                         the form and the clear query
  --ready-fd FD          write "ready" and a line feed to descriptor FD and close it once the
                         server accepts connections
  --delay PATH=MS        wait MS milliseconds before answering requests for PATH ("*": every
                         path); repeatable

Server time: HEAD and GET of "/"
  --date TEXT            value of the Date header (default: the current time, as
                         "Sun, 22 Nov 2026 10:00:00 GMT")
  --no-date              send no Date header at all
  --header "NAME: VALUE" add a header to the answers of "/" (repeatable), for example
                         "X-Date-Source: Sun, 06 Nov 1994 08:49:37 GMT"

Update query: POST /updates/zeotaV3.php
  --answer FILE          the answer document (a JSON file): it is enciphered like the device's
                         query (AES-128-CBC, the device's key and IV) and sent as base64
  --frame                put one line feed before and one after the base64 answer
  --break-base64         spoil the base64 answer so that it cannot be decoded

Package mirror: GET and HEAD of any other path
  --packages DIR         serve the file DIR/<path> (HEAD gives its Content-Length and no body)
  --mirror HOST=DIR      serve requests whose Host header is HOST from DIR instead (repeatable)
  --rate BYTES           send package bodies at BYTES bytes per second, chunk by chunk (time a
                         device spends paused is not made up for with a burst); SIGUSR1 lifts
                         the throttle, also for bodies under way
  --offset N             start package bodies at byte N, as if the device already held N bytes
  --drop-after N         close the connection after N bytes of a package body, once per file;
                         the next request of that file gets the rest of it
  --drop-times K         cut the first K transfers of each file instead of only the first
  --drop-always          cut every transfer of each file
  --drop-at OFFSET       close the connection of the transfer that reaches byte OFFSET of its
                         file, once; the next request gets the rest (repeatable)
  --vanish-at OFFSET     like --drop-at, and then go away: stop listening and exit (status 0)
  --redirect PATH=URL    answer GET and HEAD of PATH with 302, "Location: URL" and an empty body
                         (repeatable)
  --not-found PATH       answer PATH with 404 (repeatable)
)";

namespace {

// Splits "KEY<separator>VALUE"; returns false when the separator is missing.
bool SplitPair(const std::string& text, const std::string& separator, std::string* key,
               std::string* value) {
  size_t at = text.find(separator);
  if (at == std::string::npos || at == 0) return false;
  *key = text.substr(0, at);
  *value = text.substr(at + separator.size());
  return true;
}

bool ParseNumber(const std::string& text, uint64_t* number) {
  if (text.empty()) return false;
  char* end = nullptr;
  *number = strtoull(text.c_str(), &end, 10);
  return *end == '\0';
}

}  // namespace

bool ParseOptions(int argc, char** argv, ServerOptions* options, bool* help, std::string* error) {
  *help = false;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      *help = true;
      return true;
    }
    if (flag == "--drop-always") {
      options->drop_times = 0;
      continue;
    }
    // Flags without a value.
    const std::pair<const char*, bool*> switches[] = {
        {"--no-date", &options->no_date},
        {"--frame", &options->frame},
        {"--break-base64", &options->break_base64},
    };
    bool* set = nullptr;
    for (const auto& [name, target] : switches) {
      if (flag == name) set = target;
    }
    if (set != nullptr) {
      *set = true;
      continue;
    }
    if (i + 1 >= argc) {
      *error = flag + " needs a value";
      return false;
    }
    const std::string value = argv[++i];
    std::string key, rest;
    uint64_t number = 0;
    bool ok = true;
    if (flag == "--listen") {
      ok = SplitPair(value, ":", &options->address, &rest) && ParseNumber(rest, &number) &&
           number > 0 && number < 65536;
      options->port = static_cast<int>(number);
    } else if (flag == "--log") {
      options->log_path = value;
    } else if (flag == "--ready-fd") {
      ok = ParseNumber(value, &number) && number < 1024;
      options->ready_fd = static_cast<int>(number);
    } else if (flag == "--delay") {
      ok = SplitPair(value, "=", &key, &rest) && ParseNumber(rest, &number);
      options->delays_ms[key] = static_cast<int>(number);
    } else if (flag == "--date") {
      options->date = value;
    } else if (flag == "--header") {
      ok = SplitPair(value, ":", &key, &rest);
      if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
      options->root_headers.emplace_back(key, rest);
    } else if (flag == "--answer") {
      options->answer_path = value;
    } else if (flag == "--packages") {
      options->packages_dir = value;
    } else if (flag == "--mirror") {
      ok = SplitPair(value, "=", &key, &rest);
      options->mirrors[key] = rest;
    } else if (flag == "--rate") {
      ok = ParseNumber(value, &options->rate);
    } else if (flag == "--offset") {
      ok = ParseNumber(value, &options->offset);
    } else if (flag == "--drop-after") {
      ok = ParseNumber(value, &options->drop_after);
    } else if (flag == "--drop-times") {
      ok = ParseNumber(value, &options->drop_times) && options->drop_times > 0;
    } else if (flag == "--drop-at") {
      ok = ParseNumber(value, &number) && number > 0;
      options->drop_at.push_back(number);
    } else if (flag == "--vanish-at") {
      ok = ParseNumber(value, &number) && number > 0;
      options->vanish_at = number;
    } else if (flag == "--redirect") {
      ok = SplitPair(value, "=", &key, &rest);
      options->redirects[key] = rest;
    } else if (flag == "--not-found") {
      options->not_found.push_back(value);
    } else {
      *error = "unknown option " + flag;
      return false;
    }
    if (!ok) {
      *error = "bad value for " + flag + ": " + value;
      return false;
    }
  }
  return true;
}

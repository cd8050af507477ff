/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "options.h"

#include <charconv>

#include "desk_command_line.h"

namespace {

constexpr char kDescription[] =
    R"(Plays the update server and the package mirrors of a device on a desk. It answers every
request whatever its Host header (the hosts file of the sandbox points the update hosts and the
mirror names here).
)";

constexpr char kEpilogue[] =
    R"(Messages on standard error start with the seconds since the server started, as
"[%12.6f] ", and the wall-clock time in UTC.

Signals:
  SIGUSR1 lifts the throttle of --rate, also for bodies under way; SIGINT and SIGTERM stop the
  server.

Exit status:
  0   stopped by SIGINT or SIGTERM, or gone away after --vanish-at
  1   cannot listen, or cannot read the answer document
  64  bad usage
)";

// Splits "KEY<separator>VALUE"; returns false when the separator is missing.
bool SplitPair(const std::string& text, const std::string& separator, std::string* key,
               std::string* value) {
  size_t at = text.find(separator);
  if (at == std::string::npos || at == 0) return false;
  *key = text.substr(0, at);
  *value = text.substr(at + separator.size());
  return true;
}

// Largest value of a byte count, a rate or a number of times.
constexpr uint64_t kMaxNumber = UINT64_MAX;

// Returns true when |text| is a whole number in decimal digits alone (no sign, no blank) from 0
// to |maximum|, stored in |number|.
bool ParseNumber(const std::string& text, uint64_t* number, uint64_t maximum = kMaxNumber) {
  const char* end = text.data() + text.size();
  uint64_t value = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value > maximum) return false;
  *number = value;
  return true;
}

// Options that store their value as it is, append it, or set a flag.
auto Keep(std::string* target) {
  return [=](const std::string& value, std::string*) {
    *target = value;
    return true;
  };
}
auto Append(std::vector<std::string>* target) {
  return [=](const std::string& value, std::string*) {
    target->push_back(value);
    return true;
  };
}
auto Set(bool* target) {
  return [=](const std::string&, std::string*) {
    *target = true;
    return true;
  };
}
// An option whose value is a byte count or a number of times; |minimum| is its least value.
auto Number(uint64_t* target, uint64_t minimum = 0) {
  return [=](const std::string& value, std::string* expected) {
    *expected =
        "a whole number from " + std::to_string(minimum) + " to " + std::to_string(kMaxNumber);
    return ParseNumber(value, target) && *target >= minimum;
  };
}
// An option whose value is a byte offset into a package, from 1.
auto Offset(std::optional<uint64_t>* target) {
  return [=](const std::string& value, std::string* expected) {
    *expected = "a byte offset from 1 to " + std::to_string(kMaxNumber);
    uint64_t number = 0;
    if (!ParseNumber(value, &number) || number == 0) return false;
    *target = number;
    return true;
  };
}
// An option whose value is "KEY<separator>VALUE", entered in |target| (repeatable).
auto Pair(std::map<std::string, std::string>* target, const char* separator, const char* shape) {
  return [=](const std::string& value, std::string* expected) {
    *expected = shape;
    std::string key, rest;
    if (!SplitPair(value, separator, &key, &rest)) return false;
    (*target)[key] = rest;
    return true;
  };
}

}  // namespace

int ParseOptions(int argc, char** argv, ServerOptions* options) {
  const DeskTool tool = {
      "bundlerun-update-server",
      "[OPTION]...",
      kDescription,
      {
          {nullptr, nullptr, "General", nullptr},
          {"listen", "ADDR:PORT", "address to listen on (default 127.0.0.1:80)",
           [=](const std::string& value, std::string* expected) {
             *expected = "ADDR:PORT with a port from 1 to 65535";
             std::string port;
             uint64_t number = 0;
             if (!SplitPair(value, ":", &options->address, &port) ||
                 !ParseNumber(port, &number, 65535) || number == 0) {
               return false;
             }
             options->port = static_cast<int>(number);
             return true;
           }},
          {"log", "FILE",
           "append one JSON line per request received: the seconds since the\n"
           "server started (t) and the wall-clock time (wall), method, path,\n"
           "host, the local address it arrived at, headers, body, and for the\n"
           "update query the form and the clear query",
           Keep(&options->log_path)},
          {"ready-fd", "FD",
           "write \"ready\" and a line feed to descriptor FD and close it once\n"
           "the server accepts connections",
           [=](const std::string& value, std::string* expected) {
             *expected = "a descriptor number from 0 to 1023";
             uint64_t number = 0;
             if (!ParseNumber(value, &number, 1023)) return false;
             options->ready_fd = static_cast<int>(number);
             return true;
           }},
          {"delay", "PATH=MS",
           "wait MS milliseconds before answering requests for PATH (\"*\":\n"
           "every path); repeatable",
           [=](const std::string& value, std::string* expected) {
             *expected = "PATH=MS with MS a whole number of milliseconds from 0 to 3600000";
             std::string path, milliseconds;
             uint64_t number = 0;
             if (!SplitPair(value, "=", &path, &milliseconds) ||
                 !ParseNumber(milliseconds, &number, 3600000)) {
               return false;
             }
             options->delays_ms[path] = static_cast<int>(number);
             return true;
           }},

          {nullptr, nullptr, "Server time: HEAD and GET of the root path", nullptr},
          {"date", "TEXT",
           "value of the Date header (default: the current time, as\n"
           "\"Sun, 22 Nov 2026 10:00:00 GMT\")",
           [=](const std::string& value, std::string*) {
             options->date = value;
             return true;
           }},
          {"no-date", nullptr, "send no Date header at all", Set(&options->no_date)},
          {"header", "HEADER",
           "add HEADER, \"NAME: VALUE\", to the answers of \"/\" (repeatable),\n"
           "for example \"X-Date-Source: Sun, 06 Nov 1994 08:49:37 GMT\"",
           [=](const std::string& value, std::string* expected) {
             *expected = "a header \"NAME: VALUE\"";
             std::string name, text;
             if (!SplitPair(value, ":", &name, &text)) return false;
             if (!text.empty() && text[0] == ' ') text.erase(0, 1);
             options->root_headers.emplace_back(name, text);
             return true;
           }},

          {nullptr, nullptr, "Update query: POST /updates/zeotaV3.php", nullptr},
          {"answer", "FILE",
           "the answer document (a JSON file): it is enciphered like the\n"
           "device's query (AES-128-CBC, the device's key and IV) and sent as\n"
           "base64",
           Keep(&options->answer_path)},
          {"frame", nullptr, "put one line feed before and one after the base64 answer",
           Set(&options->frame)},
          {"break-base64", nullptr, "spoil the base64 answer so that it cannot be decoded",
           Set(&options->break_base64)},

          {nullptr, nullptr, "Package mirror: GET and HEAD of any other path", nullptr},
          {"packages", "DIR",
           "serve the file DIR/<path> (HEAD gives its Content-Length and no\nbody)",
           Keep(&options->packages_dir)},
          {"mirror", "HOST=DIR",
           "serve requests whose Host header is HOST from DIR instead\n(repeatable)",
           Pair(&options->mirrors, "=", "HOST=DIR")},
          {"rate", "BYTES",
           "send package bodies at BYTES bytes per second, chunk by chunk (time\n"
           "a device spends paused is not made up for with a burst); SIGUSR1\n"
           "lifts the throttle, also for bodies under way",
           Number(&options->rate)},
          {"offset", "N", "start package bodies at byte N, as if the device already held N\nbytes",
           Number(&options->offset)},
          {"drop-after", "N",
           "close the connection after N bytes of a package body, once per\n"
           "file; the next request of that file gets the rest of it",
           Number(&options->drop_after)},
          {"drop-times", "K", "cut the first K transfers of each file instead of only the first",
           Number(&options->drop_times, 1)},
          {"drop-always", nullptr, "cut every transfer of each file",
           [=](const std::string&, std::string*) {
             options->drop_times = 0;
             return true;
           }},
          {"drop-at", "OFFSET",
           "close the connection of the transfer that reaches byte OFFSET of\n"
           "its file, once; the next request gets the rest (repeatable)",
           [=](const std::string& value, std::string* expected) {
             *expected = "a byte offset from 1 to " + std::to_string(kMaxNumber);
             uint64_t number = 0;
             if (!ParseNumber(value, &number) || number == 0) return false;
             options->drop_at.push_back(number);
             return true;
           }},
          {"vanish-at", "OFFSET",
           "like --drop-at, and then go away: stop listening and exit with 0",
           Offset(&options->vanish_at)},
          {"stall-at", "OFFSET",
           "stop sending when the transfer reaches byte OFFSET of its file, and\n"
           "hold the connection open until the server stops (once)",
           Offset(&options->stall_at)},
          {"reset-at", "OFFSET",
           "end the transfer that reaches byte OFFSET of its file with a TCP\n"
           "reset and no FIN before it, once the device has acknowledged the\n"
           "bytes before OFFSET (or after 2 s); its next read fails with\n"
           "\"connection reset\" (once)",
           Offset(&options->reset_at)},
          {"unavailable", "K",
           "answer the first K package requests, GET and HEAD alike, with 503\n"
           "Service Unavailable and a short text body",
           Number(&options->unavailable)},
          {"remainder-of", "PATH",
           "start every package body at the size of PATH, the device's package\n"
           "file in the same sandbox: a mirror that knows what the device holds,\n"
           "also after a connection broke anywhere",
           Keep(&options->remainder_of)},
          {"redirect", "PATH=URL",
           "answer GET and HEAD of PATH with 302, \"Location: URL\" and an empty\n"
           "body (repeatable)",
           Pair(&options->redirects, "=", "PATH=URL")},
          {"not-found", "PATH", "answer PATH with 404 (repeatable)", Append(&options->not_found)},
      },
      kEpilogue,
  };
  return ParseDeskCommandLine(tool, argc, argv);
}

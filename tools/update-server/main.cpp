/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// bundlerun-update-server: the update server and package mirrors of a device, on a desk.
// See --help (options.cpp).

#include <httplib.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "desk_clock.h"
#include "mirror.h"
#include "options.h"
#include "query_cipher.h"
#include "request_log.h"

namespace {

constexpr char kUpdatePath[] = "/updates/zeotaV3.php";

// Started with the server: every message and request record is stamped from it.
const DeskClock g_clock;

// Writes one message line on standard error, stamped with the seconds since the server started
// and the wall-clock time, so that it lines up with the request log and the device's log.
__attribute__((format(printf, 1, 2))) void Message(const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  fprintf(stderr, "%s%s\n", g_clock.MessagePrefix().c_str(), text);
}

// Returns the current time as an HTTP date, "Sun, 22 Nov 2026 10:00:00 GMT".
std::string HttpDateNow() {
  time_t now = time(nullptr);
  tm utc;
  gmtime_r(&now, &utc);
  char text[64];
  strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &utc);
  return text;
}

// Returns the whole content of |path|, or nothing when it cannot be read.
std::optional<std::string> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Returns the base64 answer as the options want it sent: framed, spoiled, or as it is.
std::string ShapeAnswer(const ServerOptions& options, const std::string& answer) {
  std::string text = EncipherAnswer(answer);
  if (options.break_base64) {
    const size_t middle = text.size() / 2;
    for (size_t i = middle; i < text.size() && i < middle + 4; ++i) text[i] = '*';
  }
  if (options.frame) text = "\n" + text + "\n";
  return text;
}

// Waits for the signals blocked in every thread: SIGUSR1 lifts the throttle, SIGINT and SIGTERM
// stop the server.
void HandleSignals(httplib::Server* server, Mirror* mirror, sigset_t signals) {
  int received = 0;
  while (sigwait(&signals, &received) == 0 && received == SIGUSR1) mirror->Unthrottle();
  mirror->Release();
  server->stop();
}

}  // namespace

int main(int argc, char** argv) {
  ServerOptions options;
  const int status = ParseOptions(argc, argv, &options);
  if (status >= 0) return status;
  std::optional<std::string> answer;
  if (!options.answer_path.empty()) {
    answer = ReadWholeFile(options.answer_path);
    if (!answer) {
      Message("bundlerun-update-server: cannot read %s: %s", options.answer_path.c_str(),
              strerror(errno));
      return 1;
    }
  }

  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  RequestLog log(options.log_path, g_clock);
  Mirror mirror(options);
  httplib::Server server;

  // Every answer starts here: the request is recorded as received, then any delay is served.
  auto receive = [&](const httplib::Request& request) {
    if (request.method == "POST" && request.path == kUpdatePath) {
      std::optional<std::string> query = DecipherQuery(request.get_param_value("q"));
      log.Append(request, &query);
    } else {
      log.Append(request, nullptr);
    }
    auto delay = options.delays_ms.find(request.path);
    if (delay == options.delays_ms.end()) delay = options.delays_ms.find("*");
    if (delay != options.delays_ms.end()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(delay->second));
    }
  };

  server.Get("/", [&](const httplib::Request& request, httplib::Response& response) {
    receive(request);
    if (!options.no_date) response.set_header("Date", options.date.value_or(HttpDateNow()));
    for (const auto& [name, value] : options.root_headers) response.set_header(name, value);
    response.set_content("ok\n", "text/plain");
  });

  server.Post(kUpdatePath, [&](const httplib::Request& request, httplib::Response& response) {
    receive(request);
    if (!answer) {
      response.status = 404;
      return;
    }
    if (!DecipherQuery(request.get_param_value("q"))) {
      response.status = 400;
      return;
    }
    response.set_content(ShapeAnswer(options, *answer), "text/plain");
  });

  server.Get(".*", [&](const httplib::Request& request, httplib::Response& response) {
    receive(request);
    mirror.Serve(request, response);
  });

  server.Post(".*", [&](const httplib::Request& request, httplib::Response& response) {
    receive(request);
    response.status = 404;
  });

  server.set_logger([](const httplib::Request& request, const httplib::Response& response) {
    Message("update-server: %s %s%s -> %d", request.method.c_str(),
            request.get_header_value("Host").c_str(), request.path.c_str(), response.status);
  });

  mirror.SetVanish([&server, &mirror] {
    mirror.Release();
    server.stop();
  });
  if (!server.bind_to_port(options.address.c_str(), options.port)) {
    Message("bundlerun-update-server: cannot listen on %s:%d: %s", options.address.c_str(),
            options.port, strerror(errno));
    return 1;
  }
  // Connections are queued from here on: whoever waits for the server may go on.
  if (options.ready_fd >= 0) {
    static constexpr char kReady[] = "ready\n";
    TEMP_FAILURE_RETRY(write(options.ready_fd, kReady, sizeof(kReady) - 1));
    close(options.ready_fd);
  }
  std::thread stopper(HandleSignals, &server, &mirror, stop_signals);
  server.listen_after_bind();
  // However the server stopped, the signal thread ends with it.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  return 0;
}

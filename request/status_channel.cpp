/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "request/status_channel.h"

#include <stdarg.h>

namespace status_channel {

namespace {

constexpr int kDownloadIndex = ROM_DOWNLOAD;

// Writes one line and flushes it. A stream that could not be opened is written to as nowhere:
// the stage still runs to its end.
__attribute__((format(printf, 2, 3))) void WriteLine(FILE* stream, const char* format, ...) {
  if (stream == nullptr) return;
  va_list args;
  va_start(args, format);
  vfprintf(stream, format, args);
  va_end(args);
  fflush(stream);
}

}  // namespace

void WriteSuccess(FILE* stream, int index) {
  WriteLine(stream, "%d:%c\n", index, 's');
}

void WriteTimeout(FILE* stream, int index) {
  WriteLine(stream, "%d:%c:%s\n", index, 'f', "CURLE_OPERATION_TIMEDOUT");
}

void WriteFailure(FILE* stream, int index, int code) {
  WriteLine(stream, "%d:%c:%d\n", index, 'f', code);
}

void WriteComplete(FILE* stream, int index, const std::string& text) {
  WriteLine(stream, "%d:%c:%s\n", index, 'c', text.c_str());
}

void WriteRomState(FILE* stream, int index, int rom_state) {
  WriteLine(stream, "%d:%c:%d", index, 's', rom_state);
}

void WriteStopped(FILE* stream, int index) {
  WriteLine(stream, "%d:%c:%c", index, 'r', 's');
}

void WriteAcknowledge(FILE* stream, int index, char command) {
  WriteLine(stream, "%d:%c:%c\n", index, 'r', command);
}

void WriteProgress(FILE* stream, int percent) {
  WriteLine(stream, "%d:%c:%d\n", kDownloadIndex, 'p', percent);
}

void WriteSpeed(FILE* stream, unsigned long bytes_per_second) {
  WriteLine(stream, "%d:%c:%lu\n", kDownloadIndex, 's', bytes_per_second);
}

void WriteCantRun(FILE* stream, const char* path, const char* error) {
  WriteLine(stream, "E:Can't run %s (%s)\n", path, error);
}

}  // namespace status_channel

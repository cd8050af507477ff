/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "request/status_channel.h"

namespace status_channel {

namespace {
constexpr int kDownloadIndex = ROM_DOWNLOAD;
}  // namespace

void WriteSuccess(FILE* stream, int index) {
  fprintf(stream, "%d:%c\n", index, 's');
  fflush(stream);
}

void WriteTimeout(FILE* stream, int index) {
  fprintf(stream, "%d:%c:%s\n", index, 'f', "CURLE_OPERATION_TIMEDOUT");
  fflush(stream);
}

void WriteFailure(FILE* stream, int index, int code) {
  fprintf(stream, "%d:%c:%d\n", index, 'f', code);
  fflush(stream);
}

void WriteComplete(FILE* stream, int index, const std::string& text) {
  fprintf(stream, "%d:%c:%s\n", index, 'c', text.c_str());
  fflush(stream);
}

void WriteRomState(FILE* stream, int index, int rom_state) {
  fprintf(stream, "%d:%c:%d", index, 's', rom_state);
  fflush(stream);
}

void WriteStopped(FILE* stream, int index) {
  fprintf(stream, "%d:%c:%c", index, 'r', 's');
  fflush(stream);
}

void WriteAcknowledge(FILE* stream, int index, char command) {
  fprintf(stream, "%d:%c:%c\n", index, 'r', command);
  fflush(stream);
}

void WriteProgress(FILE* stream, int percent) {
  fprintf(stream, "%d:%c:%d\n", kDownloadIndex, 'p', percent);
  fflush(stream);
}

void WriteSpeed(FILE* stream, unsigned long bytes_per_second) {
  fprintf(stream, "%d:%c:%lu\n", kDownloadIndex, 's', bytes_per_second);
  fflush(stream);
}

void WriteCantRun(FILE* stream, const char* path, const char* error) {
  fprintf(stream, "E:Can't run %s (%s)\n", path, error);
  fflush(stream);
}

}  // namespace status_channel

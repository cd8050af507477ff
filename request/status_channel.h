/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The status channel to the front end. Every line the program sends is written here, one
// fprintf and one fflush per line, so that each format stands in one place. Two lines end
// without a line feed on purpose: the front end reads them as they are.

#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>

// One number space for three roles: a task's place in the chain (0 to 3), the number given to
// "--run_from_command" (6 runs the installer), and a transfer outcome (the libcurl code).
enum DownloadStatus : int32_t {
  SYNC_SERVER_TIME = 0,
  ADDRESS_INFO = 1,
  ROM_INFO = 2,
  ROM_DOWNLOAD = 3,
  RUN_UPDATER = 6,
};

namespace status_channel {

// "<index>:s\n": the task finished successfully.
void WriteSuccess(FILE* stream, int index);
// "<index>:f:CURLE_OPERATION_TIMEDOUT\n": the transfer timed out.
void WriteTimeout(FILE* stream, int index);
// "<index>:f:<code>\n": a transfer outcome that ends the task.
void WriteFailure(FILE* stream, int index, int code);
// "<index>:c:<text>\n": the download finished; |text| is the driver's result.
void WriteComplete(FILE* stream, int index, const std::string& text);
// "<index>:s:<rom state>" without a line end: the ROM info task finished.
void WriteRomState(FILE* stream, int index, int rom_state);
// "<index>:r:s" without a line end: the download stopped on the front end's request.
void WriteStopped(FILE* stream, int index);
// "<index>:r:<c|p>\n": the download resumed ('c') or paused ('p').
void WriteAcknowledge(FILE* stream, int index, char command);
// "3:p:<percent>\n": download progress.
void WriteProgress(FILE* stream, int percent);
// "3:s:<bytes per second>\n": download speed.
void WriteSpeed(FILE* stream, unsigned long bytes_per_second);
// "E:Can't run <path> (<error>)\n": the installer could not be started.
void WriteCantRun(FILE* stream, const char* path, const char* error);

}  // namespace status_channel

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// Process start-up: the log line format the front end reads and the working directories.

#pragma once

#include <android-base/logging.h>

// Writes one log record to standard output as "<severity letter>:<message>\n".
void UiLogger(android::base::LogId id, android::base::LogSeverity severity, const char* tag,
              const char* file, unsigned int line, const char* message);

// Creates the persistent root and the scratch directories. Outside the update boot image it
// mounts a tmpfs on "/cache/tmp" and moves the scratch layout under it.
void prepare_and_correct_dir();

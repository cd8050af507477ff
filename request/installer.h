/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The installer runner of the command mode: runs the package's installer and relays its updater
// protocol into the log.

#pragma once

#include <string>

// Runs "/tmp/update-binary" on "/tmp/secure_update.zip", relays its updater lines into the log
// and waits for it.
void run_updater();

// Acts on one line of the installer's updater protocol ("progress", "log", "ui_print"): valid
// lines are accepted quietly, "ui_print" text and malformed lines go to the log.
void HandleUpdaterLine(const std::string& line);

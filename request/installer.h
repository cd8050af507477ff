/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#pragma once

#include <string>

// Acts on one line of the installer's updater protocol ("progress", "log", "ui_print"): valid
// lines are accepted quietly, "ui_print" text and malformed lines go to the log.
void HandleUpdaterLine(const std::string& line);

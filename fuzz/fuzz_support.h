/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// What the fuzz targets share: quiet output, a scratch directory of their own, and the program's
// fixed paths moved into it, so that a target that writes the layout touches nothing else.

#pragma once

#include <string>

namespace fuzz {

// Sends log records nowhere and standard output to /dev/null. Records are still formatted at
// every severity, so the code that builds them runs on every input.
void QuietOutput();

// Makes a new directory for this process under $TMPDIR (or /tmp), removed again when the process
// exits, and returns its path; |name| says which target owns it. Ends the process when that
// fails. Called once per process.
std::string MakeScratchDirectory(const char* name);

// Moves every fixed path of the program (persistent tree, scratch tree, diagnostics, package)
// under |root|, as the start-up moves the scratch tree under "/cache" outside the boot image.
void MoveFixedPathsUnder(const std::string& root);

// Creates the directories the start-up creates, at the moved paths.
void MakeWorkDirectories();

// Removes |path| and everything under it, also directories made without search bits.
void RemoveTree(const std::string& path);

}  // namespace fuzz

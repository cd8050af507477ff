/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The command line of a desk tool: every option is one row of a table, parsed with getopt_long
// ("--opt value" and "--opt=value"), with --help and --version added to each tool, and errors
// that name the argument and say what it should have been.

#pragma once

#include <functional>
#include <string>
#include <vector>

// Exit status of every desk tool and script for a command line it cannot use (EX_USAGE).
constexpr int kExitUsage = 64;

struct DeskOption {
  const char* name;        // without "--"; nullptr: |help| heads the rows that follow
  const char* value_name;  // nullptr: the option takes no value
  const char* help;        // what it does; lines after the first continue the text
  // Takes the option's value ("" for an option without one). Returns false, with |*expected|
  // saying what a value should look like, when the value cannot be used.
  std::function<bool(const std::string& value, std::string* expected)> apply;
};

struct DeskTool {
  const char* name;
  const char* synopsis;     // what follows the name on the usage line
  const char* description;  // the paragraphs between the usage line and the options
  std::vector<DeskOption> options;
  const char* epilogue;  // what follows the options: further sections, the exit status
};

// Returns the version of the desk tools with the commit they were built from, "1.0.0 (git
// 1a2b3c4)".
std::string DeskToolVersion();

// Parses |argv| for |tool|. Returns -1 when the tool goes on; otherwise the status to exit with:
// 0 after --help or --version (printed on standard output), kExitUsage after an error (named on
// standard error with the usage line).
int ParseDeskCommandLine(const DeskTool& tool, int argc, char** argv);

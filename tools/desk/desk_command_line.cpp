/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "desk_command_line.h"

#include <getopt.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bundlerun_version.h"

namespace {

// getopt_long's value for the table's rows is this plus the row's index; --version has its own.
constexpr int kFirstRowValue = 256;
constexpr int kVersionValue = 255;
// Help texts start in this column unless an option with its value is wider.
constexpr size_t kMinHelpColumn = 24;

// Returns "--name" or "--name=VALUE", as the help shows an option.
std::string Shown(const char* name, const char* value_name) {
  std::string text = std::string("--") + name;
  if (value_name != nullptr) text += std::string("=") + value_name;
  return text;
}

// Returns the whole --help text: usage, description, the options of the table and of every
// tool, and the epilogue.
std::string HelpText(const DeskTool& tool) {
  struct Row {
    std::string left;
    std::string help;
  };
  std::vector<Row> rows;
  for (const DeskOption& option : tool.options) {
    if (option.name == nullptr) {
      rows.push_back({"", option.help});
    } else {
      rows.push_back({"      " + Shown(option.name, option.value_name), option.help});
    }
  }
  rows.push_back({"  -h, --help", "show this help and exit"});
  rows.push_back({"      --version", "show the version and exit"});
  size_t column = kMinHelpColumn;
  for (const Row& row : rows) column = std::max(column, row.left.size() + 2);

  std::string text = std::string("Usage: ") + tool.name + " " + tool.synopsis + "\n" +
                     tool.description + "\nOptions:\n";
  for (const Row& row : rows) {
    if (row.left.empty()) {
      text += "\n" + row.help + ":\n";
      continue;
    }
    // Continuation lines of a help text start in the same column as its first line.
    std::string help = row.help;
    for (size_t at = help.find('\n'); at != std::string::npos; at = help.find('\n', at + 1)) {
      help.insert(at + 1, column, ' ');
    }
    text += row.left + std::string(column - row.left.size(), ' ') + help + "\n";
  }
  return text + "\n" + tool.epilogue;
}

// Prints the name, the version and the commit of the build, then the copyright, as the tools
// beside it on a Debian desk do.
void PrintVersion(const char* name) {
  printf(
      "%s %s\nCopyright (C) 2026 The bundlerun Authors\n"
      "License: Apache-2.0 <https://www.apache.org/licenses/LICENSE-2.0>\n",
      name, DeskToolVersion().c_str());
}

// Names what is wrong on standard error, with the usage line; returns kExitUsage.
int UsageError(const DeskTool& tool, const std::string& message) {
  fprintf(stderr, "%s: %s\nUsage: %s %s\nTry '%s --help' for more information.\n", tool.name,
          message.c_str(), tool.name, tool.synopsis, tool.name);
  return kExitUsage;
}

// Returns what getopt_long could not take: an option it does not know, an abbreviation that fits
// several (--help and --version included), or a value given to an option that takes none. |code|
// is getopt_long's optopt: 0 for a long option it could not match, whose text is |argument|, the
// option's value for a long option given a value, and the character of an unknown short option
// (named from |code|, since inside a cluster like "-xh" optind still points before it).
std::string Refusal(const std::vector<option>& long_options, const std::string& argument,
                    int code) {
  if (code != 0) {
    for (const option& known : long_options) {
      if (known.name != nullptr && known.val == code) {
        return "option '--" + std::string(known.name) + "' takes no value";
      }
    }
    return "unknown option '-" + std::string(1, static_cast<char>(code)) + "'";
  }
  const std::string name = argument.substr(0, argument.find('='));
  std::string fits;
  int count = 0;
  for (const option& known : long_options) {
    if (known.name != nullptr && ("--" + std::string(known.name)).rfind(name, 0) == 0) {
      fits += (count++ == 0 ? "--" : ", --") + std::string(known.name);
    }
  }
  if (count < 2) return "unknown option '" + name + "'";
  return "option '" + name + "' is ambiguous (" + fits + ")";
}

}  // namespace

std::string DeskToolVersion() {
  std::string version = kBundlerunVersion;
  if (kBundlerunGitCommit[0] != '\0') version += std::string(" (git ") + kBundlerunGitCommit + ")";
  return version;
}

int ParseDeskCommandLine(const DeskTool& tool, int argc, char** argv) {
  std::vector<option> long_options;
  for (size_t i = 0; i < tool.options.size(); ++i) {
    const DeskOption& row = tool.options[i];
    if (row.name == nullptr) continue;
    long_options.push_back({row.name, row.value_name ? required_argument : no_argument, nullptr,
                            kFirstRowValue + static_cast<int>(i)});
  }
  long_options.push_back({"help", no_argument, nullptr, 'h'});
  long_options.push_back({"version", no_argument, nullptr, kVersionValue});
  long_options.push_back({nullptr, 0, nullptr, 0});

  // getopt_long's own messages stay off: the errors below say what was expected.
  opterr = 0;
  int value;
  while ((value = getopt_long(argc, argv, ":h", long_options.data(), nullptr)) != -1) {
    if (value == 'h') {
      fputs(HelpText(tool).c_str(), stdout);
      return 0;
    }
    if (value == kVersionValue) {
      PrintVersion(tool.name);
      return 0;
    }
    if (value == '?') {
      // A long option that could not be matched is the argument just passed.
      return UsageError(tool, Refusal(long_options, argv[optind - 1], optopt));
    }
    if (value == ':') {
      const DeskOption& row = tool.options[optopt - kFirstRowValue];
      return UsageError(
          tool, "option '--" + std::string(row.name) + "' needs a value (" + row.value_name + ")");
    }
    const DeskOption& row = tool.options[value - kFirstRowValue];
    std::string expected;
    const std::string given = optarg != nullptr ? optarg : "";
    if (!row.apply(given, &expected)) {
      return UsageError(
          tool, "option '--" + std::string(row.name) + "': '" + given + "' is not " + expected);
    }
  }
  if (optind < argc) {
    return UsageError(tool, "unexpected argument '" + std::string(argv[optind]) + "'");
  }
  return -1;
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The command lines of the desk tools: bundlerun-ui, bundlerun-update-server and make-sample-rom
// answer --version, take "--opt value" and "--opt=value", and refuse what they cannot use with
// exit status 64, the usage on standard error and an error that names the argument; the front
// end colours a terminal unless NO_COLOR or --color say otherwise.

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "harness/harness.h"

namespace {

using harness::Output;
using harness::ReadFile;

constexpr char kErr[] = "/tmp/harness/err";

// Runs |command| through the shell; returns its exit status, with standard output and standard
// error in |out| and |err|.
int RunTool(const std::string& command, std::string* out, std::string* err) {
  // The status follows standard output on a line of its own.
  *out = Output(command + " 2> " + kErr + "; printf '\\n%d' $?");
  const size_t end = out->rfind('\n');
  const int status = std::stoi(out->substr(end + 1));
  out->erase(end);
  *err = ReadFile(kErr);
  return status;
}

class DeskToolsTest : public harness::SandboxTest {};

TEST_F(DeskToolsTest, OptionsAreParsedLikeOtherDebianTools) {
  const std::string ui = harness::ShellProgram(UI_BIN);
  const std::string server = UPDATE_SERVER_BIN;
  const std::string rom_maker = SAMPLE_ROM_MAKER;
  // The front end on a terminal (script's pseudo-terminal), with a bundlerun that fails at once.
  const std::string on_terminal = "script -qec '" + ui +
                                  " --plain --bundlerun /bin/false --log /tmp/harness/ui.log";
  struct Case {
    std::string command;
    int exit_status;
    std::string out;     // what standard output holds ("": nothing at all)
    std::string err;     // what standard error holds besides the usage ("": nothing at all)
    std::string absent = "";  // what standard output must not hold
  } cases[] = {
      {ui + " --bogus", 64, "", "bundlerun-ui: unknown option '--bogus'\n"},
      {server + " --bogus=1", 64, "", "bundlerun-update-server: unknown option '--bogus'\n"},
      {rom_maker + " --bogus", 64, "", "make-sample-rom: unrecognized option '--bogus'\n"},
      {ui + " --log", 64, "", "bundlerun-ui: option '--log' needs a value (FILE)\n"},
      {server + " --rate", 64, "", "bundlerun-update-server: option '--rate' needs a value"},
      {rom_maker + " --size", 64, "", "make-sample-rom: option '--size' requires an argument\n"},
      {ui + " --stop-at 101", 64, "",
       "bundlerun-ui: option '--stop-at': '101' is not a whole percent from 0 to 100\n"},
      {ui + " --color=sometimes", 64, "", "'sometimes' is not never, always or auto\n"},
      {ui + " --plain=yes", 64, "", "bundlerun-ui: option '--plain' takes no value\n"},
      {server + " --listen=127.0.0.1:99999", 64, "", "'127.0.0.1:99999' is not ADDR:PORT"},
      {server + " --drop-times 0", 64, "",
       "'--drop-times': '0' is not a whole number from 1 to 18446744073709551615\n"},
      {server + " --offset 18446744073709551616 --help", 64, "",
       "'18446744073709551616' is not a whole number from 0 to 18446744073709551615\n"},
      {server + " --ready-fd ' +7' --help", 64, "",
       "' +7' is not a descriptor number from 0 to 1023\n"},
      {server + " --d 1", 64, "", "option '--d' is ambiguous (--delay, --date, --drop-after"},
      // --help and --version are candidates of an abbreviation like the table's options.
      {ui + " --ver", 64, "", "bundlerun-ui: option '--ver' is ambiguous (--verbose, --version)\n"},
      {server + " --he", 64, "", "option '--he' is ambiguous (--header, --help)\n"},
      // Inside a cluster the refused character is named, not the argument before it.
      {ui + " --verbose -xh", 64, "", "bundlerun-ui: unknown option '-x'\n"},
      {rom_maker + " --size=0 x.zip", 64, "", "option '--size': '0' is not a whole number"},
      {rom_maker + " --size=1", 64, "", "make-sample-rom: no OUTPUT.zip given\n"},
      {ui + " extra", 64, "", "bundlerun-ui: unexpected argument 'extra'\n"},
      // Both forms of a value are taken; --help ends the parse with the help on standard output.
      {ui + " --stop-at=50 --color never --help", 0, "Usage: bundlerun-ui [OPTION]...\n", ""},
      {server + " --rate=1000 --offset 5 --help", 0, "Exit status:\n", ""},
      {rom_maker + " --size=1 /tmp/harness/one.zip", 0, "", ""},
      {on_terminal + "' /dev/null", 1, "\033[1mstage1:\033[0m bundlerun ended", ""},
      {"NO_COLOR=1 " + on_terminal + "' /dev/null", 1, "stage1: bundlerun ended", "", "\033["},
      {"NO_COLOR=1 " + on_terminal + " --color=always' /dev/null", 1, "\033[1mstage1:", ""},
      {"NO_COLOR= " + on_terminal + "' /dev/null", 1, "\033[1mstage1:", ""},
      {on_terminal + " --color=never' /dev/null", 1, "stage1: bundlerun ended", "", "\033["},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    std::string out, err;
    EXPECT_EQ(c.exit_status, RunTool(c.command, &out, &err));
    if (c.out.empty()) {
      EXPECT_EQ("", out);
    }
    EXPECT_NE(std::string::npos, out.find(c.out)) << out;
    if (!c.absent.empty()) {
      EXPECT_EQ(std::string::npos, out.find(c.absent)) << out;
    }
    if (c.exit_status == 64) {
      EXPECT_NE(std::string::npos, err.find(c.err)) << err;
      EXPECT_NE(std::string::npos, err.find("\nUsage: ")) << err;
    } else if (c.exit_status == 0) {
      EXPECT_EQ("", err);
    }
  }
  EXPECT_EQ(1048576u, ReadFile("/tmp/harness/one.zip").size());
}

// Each tool names itself, the version and, when built from a git checkout, the commit of the
// checkout's HEAD (marked when the tree had changes).
TEST_F(DeskToolsTest, VersionNamesTheCommitOfTheCheckout) {
  const std::string head =
      Output(std::string("git -C '") + TEST_SOURCE_DIR + "' rev-parse HEAD 2> /dev/null");
  const std::string version = std::regex_replace(TEST_VERSION, std::regex("\\."), "\\.");
  const std::pair<std::string, std::string> tools[] = {
      {harness::ShellProgram(UI_BIN), "bundlerun-ui"},
      {UPDATE_SERVER_BIN, "bundlerun-update-server"},
      {SAMPLE_ROM_MAKER, "make-sample-rom"},
  };
  for (const auto& [program, name] : tools) {
    SCOPED_TRACE(name);
    std::string out, err;
    EXPECT_EQ(0, RunTool(program + " --version", &out, &err));
    EXPECT_EQ("", err);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(
        out, match,
        std::regex("^" + name + " " + version + "( \\(git ([0-9a-f]{7,40})(-dirty)?\\))?\n")))
        << out;
    if (head.empty()) {
      EXPECT_FALSE(match[1].matched) << out;
    } else {
      ASSERT_TRUE(match[2].matched) << out;
      EXPECT_EQ(0u, head.rfind(match[2].str(), 0)) << "HEAD " << head << out;
    }
  }
}

}  // namespace

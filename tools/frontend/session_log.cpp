/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "session_log.h"

#include <android-base/strings.h>

namespace {

// Returns |arg| as a shell reads it back: quoted when it holds anything but plain characters.
std::string ShellWord(const std::string& arg) {
  if (!arg.empty() && arg.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                            "0123456789_./=:,+-@%") == std::string::npos) {
    return arg;
  }
  return "'" + android::base::StringReplace(arg, "'", "'\\''", true) + "'";
}

// Returns the text field |key| of |event|, or "".
std::string Text(const Event& event, const char* key) {
  const FieldValue* value = event.Find(key);
  return value && std::holds_alternative<std::string>(*value) ? std::get<std::string>(*value) : "";
}

// Returns the log's words for an event that the display shows without any: a command sent to
// bundlerun ("sent "p" (key)"), or the status line that acknowledged one or completed the
// download ("paused (3:r:p)"); "" for anything else.
std::string Unworded(const Event& event) {
  if (event.kind == EventKind::kCommand) {
    return "sent \"" + Text(event, "command") + "\" (" + Text(event, "by") + ")";
  }
  const std::string status = Text(event, "status");
  if (status.empty()) return "";
  const std::string what =
      event.kind == EventKind::kTask ? Text(event, "name") + " completed" : EventName(event.kind);
  return what + " (" + status + ")";
}

}  // namespace

void SessionLog::OnEvent(const Event& event) {
  switch (event.kind) {
    case EventKind::kStart: {
      // "===== <wall> bundlerun-ui <version> [<arguments>] running <bundlerun> ====="
      std::string header =
          "===== " + Text(event, "wall") + " bundlerun-ui " + Text(event, "version");
      if (const FieldValue* args = event.Find("args")) {
        for (const std::string& arg : std::get<std::vector<std::string>>(*args)) {
          header += " " + ShellWord(arg);
        }
      }
      Line(event.t, header + " running " + ShellWord(Text(event, "bundlerun")) + " =====");
      return;
    }
    case EventKind::kBegin:
      Line(event.t, "===== " + Text(event, "title") + " =====");
      return;
    case EventKind::kInstaller:
    case EventKind::kProgress:
      return;  // bundlerun's own lines say it, or the bar does
    default:
      break;
  }
  const std::string text = event.text.empty() ? Unworded(event) : event.text;
  for (const std::string& line : android::base::Split(text, "\n")) {
    if (!line.empty()) Line(event.t, "ui " + event.stage + ": " + line);
  }
}

void SessionLog::OnLogLine(double t, const std::string& line) {
  Line(t, line);
}

void SessionLog::Line(double t, const std::string& text) {
  fprintf(file_, "%s%s\n", DeskClock::Stamp(t).c_str(), text.c_str());
  fflush(file_);
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "json_events.h"

#include <cjson/cJSON.h>
#include <math.h>
#include <stdlib.h>

#include <memory>

namespace {

struct JsonDeleter {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};

// Returns |seconds| in whole microseconds, as the log's stamps show them.
double Microseconds(double seconds) {
  return round(seconds * 1e6) / 1e6;
}

// Returns |text| as a new JSON string: cJSON writes the bytes it is given, and JSON is UTF-8.
cJSON* JsonString(const std::string& text) {
  return cJSON_CreateString(CleanText(text).c_str());
}

// Returns |value| as a new JSON item.
cJSON* JsonValue(const FieldValue& value) {
  if (std::holds_alternative<bool>(value)) return cJSON_CreateBool(std::get<bool>(value));
  if (std::holds_alternative<int64_t>(value)) {
    return cJSON_CreateNumber(static_cast<double>(std::get<int64_t>(value)));
  }
  if (std::holds_alternative<double>(value)) {
    return cJSON_CreateNumber(Microseconds(std::get<double>(value)));
  }
  if (std::holds_alternative<std::string>(value)) {
    return JsonString(std::get<std::string>(value));
  }
  if (std::holds_alternative<std::vector<std::string>>(value)) {
    cJSON* array = cJSON_CreateArray();
    for (const std::string& item : std::get<std::vector<std::string>>(value)) {
      cJSON_AddItemToArray(array, JsonString(item));
    }
    return array;
  }
  return cJSON_CreateNull();
}

}  // namespace

std::string EventJson(const Event& event) {
  std::unique_ptr<cJSON, JsonDeleter> object(cJSON_CreateObject());
  cJSON_AddNumberToObject(object.get(), "t", Microseconds(event.t));
  cJSON_AddItemToObject(object.get(), "stage", JsonString(event.stage));
  cJSON_AddStringToObject(object.get(), "event", EventName(event.kind));
  if (!event.text.empty()) cJSON_AddItemToObject(object.get(), "text", JsonString(event.text));
  for (const Field& field : event.fields) {
    cJSON_AddItemToObject(object.get(), field.key.c_str(), JsonValue(field.value));
  }
  std::unique_ptr<char, decltype(&free)> line(cJSON_PrintUnformatted(object.get()), free);
  return line ? line.get() : "{}";
}

void JsonEventWriter::OnEvent(const Event& event) {
  fprintf(out_, "%s\n", EventJson(event).c_str());
  fflush(out_);
}

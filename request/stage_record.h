/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// What the tasks of one stage share. The driver owns the record and lends it to every task of
// the chain; a task reads and writes it, and never reaches the driver itself.

#pragma once

#include <cJSON.h>
#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <string>

#include "common/url_wrapper.h"

struct JsonDeleter {
  void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};

struct StageRecord {
  // The status channel to the front end; null when its descriptor could not be opened, and then
  // written to as nowhere.
  FILE* status = nullptr;
  // The front end's command stream during the download, or -1 when nobody sends commands.
  int commandFd = -1;
  // The parsed update answer, stored by the update query task.
  std::unique_ptr<cJSON, JsonDeleter> answer;
  // 0 when the update answer offers a ROM, 2 when it offers none.
  int32_t romState = 0;
  // The package address: given on the command line in the second stage, stored by the ROM info
  // task in the first, replaced by the download on a redirect.
  std::unique_ptr<URLWrapper> downloadUrl;
  // The text of the download's completion line: the package's MD5 digest.
  std::string result;
};

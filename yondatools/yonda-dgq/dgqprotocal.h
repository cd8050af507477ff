/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// Diagnostic events for the device's diagnostics daemon, which uploads them.

#pragma once

#include <stdint.h>

#include <map>
#include <string>

namespace yondadgq {

// Drops |event| into the events directory, one file per field named after its key, and logs
// what the diagnostics mode pid file says. Returns 0.
int32_t dgq_write_data(const std::map<std::string, std::string>& event);

}  // namespace yondadgq

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#pragma once

#include <string>
#include <unordered_map>

// Device facts, request parameters and header entries. Iteration order is never significant.
using StringMap = std::unordered_map<std::string, std::string>;

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update hosts of this device image.

#pragma once

#include <string>

#include "yonda_property.h"

inline constexpr char kUpdateHost[] = BUNDLERUN_UPDATE_HOST;
inline constexpr char kIntlUpdateHost[] = BUNDLERUN_INTL_UPDATE_HOST;

// Returns the update host that this build talks to: international builds have their own.
inline std::string UpdateHost() {
  return isInternationalVersion() ? kIntlUpdateHost : kUpdateHost;
}

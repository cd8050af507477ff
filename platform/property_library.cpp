/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update environment's property library, served from the property store.

#include <android-base/properties.h>
#include <cutils/properties.h>
#include <string.h>

#include <string>

#include "yonda_property.h"

bool isInternationalVersion() {
  return android::base::GetProperty("ro.yonda.build.international", "") == "1";
}

bool isStableVersion() {
  return android::base::GetProperty("ro.yonda.build.channel", "") == "stable";
}

int getDeviceSerial(char* buffer) {
  if (property_get("ro.serialno", buffer, "") > 0) return 0;
  if (property_get("ro.boot.serialno", buffer, "") > 0) return 0;
  return -1;
}

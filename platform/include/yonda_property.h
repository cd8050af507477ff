/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update environment's property library: build flavour and device identity.

#pragma once

// True when the build is the international variant ("ro.yonda.build.international" is "1").
bool isInternationalVersion();

// True when the build is on the stable channel ("ro.yonda.build.channel" is "stable").
bool isStableVersion();

// Copies the device serial number ("ro.serialno", else "ro.boot.serialno") into |buffer|, which
// holds PROPERTY_VALUE_MAX bytes. Returns 0, or -1 when the device has no serial number.
int getDeviceSerial(char* buffer);

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// Limits of the device's property service, for hosts whose C library has no property service.

#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

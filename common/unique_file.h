/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#pragma once

#include <stdio.h>

#include <memory>

// A stdio stream that is closed when its owner goes away.
struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

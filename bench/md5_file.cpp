/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// Times the package digest that the download's completion line carries:
//   bundlerun-md5-bench FILE   ->   "<md5> <seconds>"

#include <stdio.h>

#include <chrono>

#include "common/file_digest.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s FILE\n", argv[0]);
    return 2;
  }
  auto start = std::chrono::steady_clock::now();
  std::string digest = Md5OfFile(argv[1]);
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  if (digest.empty()) {
    perror(argv[1]);
    return 1;
  }
  printf("%s %.3f\n", digest.c_str(), took.count());
  return 0;
}

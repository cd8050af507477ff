/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The latest-ROM dump: what a run laid out in the scratch tree survives the boot environment in
// the persistent download tree on the cache partition.

#pragma once

// Copies the scratch ROM information and request/response files to the persistent tree, through
// the write guard.
void jsondump();

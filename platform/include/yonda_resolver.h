/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update environment's resolver library.

#pragma once

#include <netdb.h>

#include "common/url_wrapper.h"

// Receives the outcome of a name resolution: the URL passed to resolveName, the resolver's
// status (0 on success), the number of time-outs met, and the host entry (null on failure). The
// entry is valid only during the call.
using ResolveCallback = void (*)(void* arg, int status, int timeouts, hostent* host);

// Resolves the IPv4 addresses of |url|'s host (hosts file first, then the name servers) and
// calls |callback| exactly once with &url before returning.
void resolveName(URLWrapper& url, ResolveCallback callback);

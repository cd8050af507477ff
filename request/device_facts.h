/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The device facts of the update query. Each getter reads one property, file or platform call,
// stores the short code the update server expects under its key and returns 0, or prints why it
// could not and returns -1 (a missing fact is simply absent from the query).

#pragma once

#include "common/string_map.h"

int getTALUVersion(StringMap& facts);
int getTALUBigVersion(StringMap& facts);
int getCodeBase(StringMap& facts);
int getDeviceName(StringMap& facts);
int getImei(StringMap& facts);
int getBranchCode(StringMap& facts);
int getLanguage(StringMap& facts);
int getRegion(StringMap& facts);
int getCarrier(StringMap& facts);
int getProductBoard(StringMap& facts);
int getRootable(StringMap& facts);
int getSerialNum(StringMap& facts);
int getWhetherSystemModified(StringMap& facts);
int getDeviceLockState(StringMap& facts);
int getDeviceDpi(StringMap& facts);
int getHashId(StringMap& facts);
int getRomZone(StringMap& facts);
int getABSystem(StringMap& facts);

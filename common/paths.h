/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// File, directory, property, JSON member and header names of the boot environment's shared
// layout, all defined in paths.cpp. They are process-wide mutable strings: the scratch layout
// below is moved under "/cache" at start when the program runs outside the update boot image, so
// read them at the time of use. Names marked "layout only" are not read by this program; they
// are kept because the layout names them.

#pragma once

#include <string>

extern std::string kCacheRootDir;
extern std::string kLastLocalePath;  // layout only
extern std::string kLastLogPath;     // layout only
extern std::string kLastKmsgPath;    // layout only
extern std::string kResponseBodyPath;
extern std::string kOtaHeaderPath;  // layout only
extern std::string kTimePath;
extern std::string kCommandPath;       // layout only
extern std::string kLocalePath;        // layout only
extern std::string kLastDiagNamePath;  // layout only
extern std::string kEnableAndroidRequestPath;
extern std::string kEnableAndroidResponsePath;
extern std::string kNormalLastDiagPath;  // layout only
extern std::string kErrorLastDiagPath;   // layout only
extern std::string kDiagPidPath;
extern std::string kDgqasdCacheDir;     // layout only
extern std::string kIgnoreTestkeyProp;  // layout only
extern std::string kForceDetectProp;    // layout only
extern std::string kForceInstallProp;   // layout only
extern std::string kLastTmpDir;         // layout only
extern std::string kUncryptStatusPath;  // layout only
extern std::string kRelLastKmsgPath;    // layout only
extern std::string kRelLastLogPath;     // layout only
extern std::string kLatestRomName;
extern std::string kCrossRomName;
extern std::string kCurrentRomName;
extern std::string kStatusName;
extern std::string kRequestUncryptedName;  // layout only
extern std::string kRequestEncryptedName;  // layout only
extern std::string kFilesizeKey;
extern std::string kFilenameKey;
extern std::string kCurrVersionKey;
extern std::string kVersionKey;
extern std::string kHostKey;
extern std::string kMirrorListName;
extern std::string kValidateName;
extern std::string kEraseName;  // layout only
extern std::string kMd5Key;
extern std::string kDownloadDir;
extern std::string kYondaRequestPlainPath;
extern std::string kYondaRequestCipherPath;
extern std::string kAndroidRequestPlainPath;
extern std::string kAndroidRequestCipherPath;
extern std::string kYondaResponsePlainPath;
extern std::string kYondaResponseCipherPath;
extern std::string kAndroidResponsePlainPath;
extern std::string kAndroidResponseCipherPath;
extern std::string kDgqCacheDir;              // layout only
extern std::string kContentLengthHeader;      // layout only
extern std::string kOrigContentLengthHeader;  // layout only

// Diagnostics set.
extern std::string kDgqTmpDir;
extern std::string kDgqEventsDir;
extern std::string kDgqUploadUrlPreview;  // layout only
extern std::string kDgqUploadUrl;         // layout only
extern std::string kDgqUploadUrlIntl;     // layout only

// Scratch layout.
extern std::string kTmpDownloadDir;
extern std::string kTmpLatestRomDir;
extern std::string kTmpCrossRomDir;
extern std::string kTmpCurrentRomDir;
extern std::string kTmpRequestPlainPath;
extern std::string kTmpRequestCipherPath;
extern std::string kTmpResponsePlainPath;
extern std::string kTmpResponseCipherPath;
extern std::string kTmpStatusPath;  // layout only: the status file is written by name
extern std::string kSecureUpdatePackagePath;

// Puts |prefix| in front of every path of the scratch tree (the scratch layout, the package and
// the diagnostics directories), as the start-up does outside the update boot image.
void MoveScratchTreeUnder(const std::string& prefix);

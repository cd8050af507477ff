/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// File, directory, property, JSON member and header names shared by the program's units.
// They are process-wide mutable strings: the scratch layout below is moved under "/cache" at
// start when the program runs outside the update boot image, so read them at the time of use.

#pragma once

#include <string>

extern std::string kCacheRootDir;
extern std::string kLastLocalePath;
extern std::string kLastLogPath;
extern std::string kLastKmsgPath;
extern std::string kResponseBodyPath;
extern std::string kOtaHeaderPath;
extern std::string kTimePath;
extern std::string kCommandPath;
extern std::string kLocalePath;
extern std::string kLastDiagNamePath;
extern std::string kEnableAndroidRequestPath;
extern std::string kEnableAndroidResponsePath;
extern std::string kNormalLastDiagPath;
extern std::string kErrorLastDiagPath;
extern std::string kDiagPidPath;
extern std::string kDgqasdCacheDir;
extern std::string kIgnoreTestkeyProp;
extern std::string kForceDetectProp;
extern std::string kForceInstallProp;
extern std::string kLastTmpDir;
extern std::string kUncryptStatusPath;
extern std::string kRelLastKmsgPath;
extern std::string kRelLastLogPath;
extern std::string kLatestRomName;
extern std::string kCrossRomName;
extern std::string kCurrentRomName;
extern std::string kStatusName;
extern std::string kRequestUncryptedName;
extern std::string kRequestEncryptedName;
extern std::string kFilesizeKey;
extern std::string kFilenameKey;
extern std::string kCurrVersionKey;
extern std::string kVersionKey;
extern std::string kHostKey;
extern std::string kMirrorListName;
extern std::string kValidateName;
extern std::string kEraseName;
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
extern std::string kDgqCacheDir;
extern std::string kContentLengthHeader;
extern std::string kOrigContentLengthHeader;

// Diagnostics set (defined by the diagnostics event writer).
extern std::string kDgqTmpDir;
extern std::string kDgqEventsDir;
extern std::string kDgqUploadUrlPreview;
extern std::string kDgqUploadUrl;
extern std::string kDgqUploadUrlIntl;

// Scratch layout (defined by the ROM directory unit), in the order the start-up relocates it.
extern std::string kTmpDownloadDir;
extern std::string kTmpLatestRomDir;
extern std::string kTmpCrossRomDir;
extern std::string kTmpCurrentRomDir;
extern std::string kTmpRequestPlainPath;
extern std::string kTmpRequestCipherPath;
extern std::string kTmpResponsePlainPath;
extern std::string kTmpResponseCipherPath;
extern std::string kTmpStatusPath;
extern std::string kSecureUpdatePackagePath;

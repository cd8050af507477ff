/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include "common/paths.h"

// Every name of the boot environment's shared layout is defined here, also those that this
// program does not read itself (marked "layout only" in paths.h): the layout names them.

std::string kCacheRootDir = "/cache/yonda";
std::string kLastLocalePath = "/cache/yonda/last_locale";
std::string kLastLogPath = "/cache/yonda/last_log";
std::string kLastKmsgPath = "/cache/yonda/last_kmsg";
std::string kResponseBodyPath = "/cache/yonda/response.body";
std::string kOtaHeaderPath = "/cache/yonda/otaheader";
std::string kTimePath = "/cache/yonda/time";
std::string kCommandPath = "/cache/yonda/command";
std::string kLocalePath = "/cache/yonda/last_locale";
std::string kLastDiagNamePath = "/cache/yonda/last_diag_name";
std::string kEnableAndroidRequestPath = "/cache/yonda/enable_android_request";
std::string kEnableAndroidResponsePath = "/cache/yonda/enable_android_response";
std::string kNormalLastDiagPath = "/cache/yonda/normal/last_diag";
std::string kErrorLastDiagPath = "/cache/yonda/error/last_diag";
std::string kDiagPidPath = "/cache/yonda/diagpid";
std::string kDgqasdCacheDir = "/cache/dgqasd";
std::string kIgnoreTestkeyProp = "yonda.ignore.testkey";
std::string kForceDetectProp = "yonda.force.detect";
std::string kForceInstallProp = "yonda.force.install";
std::string kLastTmpDir = "/cache/yonda/last_tmp";
std::string kUncryptStatusPath = "/cache/yonda/uncrypt_status";
std::string kRelLastKmsgPath = "yonda/last_kmsg";
std::string kRelLastLogPath = "yonda/last_log";
std::string kLatestRomName = "LatestRom";
std::string kCrossRomName = "CrossRom";
std::string kCurrentRomName = "CurrentRom";
std::string kStatusName = "status";
std::string kRequestUncryptedName = "request.uncrypted";
std::string kRequestEncryptedName = "request.encrypted";
std::string kFilesizeKey = "filesize";
std::string kFilenameKey = "filename";
std::string kCurrVersionKey = "curr_version";
std::string kVersionKey = "version";
std::string kHostKey = "host";
std::string kMirrorListName = "MirrorList";
std::string kValidateName = "Validate";
std::string kEraseName = "Erase";
std::string kMd5Key = "md5";
std::string kDownloadDir = "/cache/yonda/download";
std::string kYondaRequestPlainPath = "/cache/yonda/download/request.yonda.uncrypted";
std::string kYondaRequestCipherPath = "/cache/yonda/download/request.yonda.encrypted";
std::string kAndroidRequestPlainPath = "/cache/yonda/download/request.android.uncrypted";
std::string kAndroidRequestCipherPath = "/cache/yonda/download/request.android.encrypted";
std::string kYondaResponsePlainPath = "/cache/yonda/download/response.yonda.uncrypted";
std::string kYondaResponseCipherPath = "/cache/yonda/download/response.yonda.encrypted";
std::string kAndroidResponsePlainPath = "/cache/yonda/download/response.android.uncrypted";
std::string kAndroidResponseCipherPath = "/cache/yonda/download/response.android.encrypted";
std::string kDgqCacheDir = "/cache/yonda/dgq";
std::string kContentLengthHeader = "Content-Length";
std::string kOrigContentLengthHeader = "Oct-Orig-Content-Length";

// The diagnostics set. The daemon uploads to these endpoints; this program only names them.
std::string kDgqTmpDir = "/tmp/dgq";
std::string kDgqEventsDir = "/tmp/dgq/events";
std::string kDgqUploadUrlPreview =
    std::string("http://") + BUNDLERUN_DGQ_PREVIEW_HOST + "/dgqas/fileUploadWithUrlId";
std::string kDgqUploadUrl =
    std::string("https://") + BUNDLERUN_DGQ_HOST + "/dgqas/fileUploadWithUrlId";
// The trailing blank belongs to the international endpoint as the daemon knows it.
std::string kDgqUploadUrlIntl =
    std::string("https://") + BUNDLERUN_DGQ_INTL_HOST + "/dgqas/fileUploadWithUrlId ";

// The scratch layout. The start-up moves it under "/cache" outside the update boot image.
std::string kTmpDownloadDir = "/tmp/download";
std::string kTmpLatestRomDir = "/tmp/download/LatestRom";
std::string kTmpCrossRomDir = "/tmp/download/CrossRom";
std::string kTmpCurrentRomDir = "/tmp/download/CurrentRom";
std::string kTmpRequestPlainPath = "/tmp/download/request.uncrypted";
std::string kTmpRequestCipherPath = "/tmp/download/request.encrypted";
std::string kTmpResponsePlainPath = "/tmp/download/response.uncrypted";
std::string kTmpResponseCipherPath = "/tmp/download/response.encrypted";
std::string kTmpStatusPath = "/tmp/download/status";
std::string kSecureUpdatePackagePath = "/tmp/secure_update.zip";

void MoveScratchTreeUnder(const std::string& prefix) {
  for (std::string* path : {&kTmpDownloadDir, &kTmpLatestRomDir, &kTmpCrossRomDir,
                            &kTmpCurrentRomDir, &kTmpRequestPlainPath, &kTmpRequestCipherPath,
                            &kTmpResponsePlainPath, &kTmpResponseCipherPath, &kTmpStatusPath,
                            &kSecureUpdatePackagePath, &kDgqTmpDir, &kDgqEventsDir}) {
    path->insert(0, prefix);
  }
}

/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "ROMDOWNLOAD"

#include "request/romdownload.h"

#include <android-base/logging.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <string>
#include <thread>

#include "common/file_digest.h"
#include "common/paths.h"
#include "request/download_task.h"
#include "yonda_resolver.h"
#include "yondatools/yonda-update/dir2url.h"

std::atomic<int32_t> gStopFlag{0};

namespace {

// Command listeners started and not yet ended.
std::atomic<int> g_listeners{0};

constexpr int32_t kStopRequested = CURLE_ABORTED_BY_CALLBACK;
constexpr size_t kCommandLineSize = 1024;
constexpr char kRule[] = "######################################";
// Sizes of the parts of a redirect address; longer parts are cut.
constexpr size_t kSchemeSize = 16;
constexpr size_t kHostSize = 1024;
constexpr size_t kPathSize = 524288;

int64_t SteadyNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Returns |text| cut to what a zero-terminated buffer of |size| bytes holds.
std::string Bounded(std::string text, size_t size) {
  if (text.size() >= size) text.resize(size - 1);
  return text;
}

// Splits a redirect address into scheme (through "://"), host and path.
URLWrapper SplitRedirect(const std::string& address) {
  std::string scheme, host, path;
  size_t host_start = 0;
  for (size_t i = 0; i < address.size(); ++i) {
    if (address[i] == ':') {
      scheme = address.substr(0, i + 3);
      i += 2;
      host_start = i + 1;
    } else if (address[i] == '/') {
      host = address.substr(host_start, i - host_start);
      path = address.substr(i);
      break;
    }
  }
  return URLWrapper(Bounded(scheme, kSchemeSize), Bounded(host, kHostSize), "",
                    Bounded(path, kPathSize));
}

}  // namespace

RomDownload::RomDownload() {
  EventWrapper<RomDownload>::Attach(this);
  InitCbmap();
}

RomDownload::~RomDownload() {
  RomDownload::releaseResource();
  EventWrapper<RomDownload>::Detach(this);
}

std::string RomDownload::getDescriptor() {
  return "RomDownload";
}

void RomDownload::run() {
  LOG(INFO) << ">> RomDownload is running...";
  if (!driver->downloadUrl) {
    // The first stage found no package address (no ROM, or no plain-HTTP mirror).
    LOG(ERROR) << ">> RomDownload has no url info!! End the RomDownload";
    status_channel::WriteFailure(driver->writeStream, index, CURLE_URL_MALFORMAT);
    return;
  }
  url = *driver->downloadUrl;
  LOG(INFO) << ">> RomDownload url " << url.url();
  // A missing or broken size file means a broken layout: the conversion error ends the run.
  expectedSize = std::stoul(getFileSize(), nullptr, 10);
  resolveName(url, EventWrapper<RomDownload>::fake_callback);
}

int RomDownload::Executed(DownloadTask* task_driver) {
  driver = task_driver;
  int code = PreExecuted();
  if (code != CURLE_OK) return code;
  return OnExecuted();
}

int RomDownload::PreExecuted() {
  packageFile.reset(fopen(kSecureUpdatePackagePath.c_str(), "a"));
  LOG(DEBUG) << ">> RomDownload::PreExecuted, updatefile=" << kSecureUpdatePackagePath;
  // What an earlier attempt left stays; the new body is appended after it.
  int64_t resume_offset = 0;
  if (packageFile && fseeko(packageFile.get(), 0, SEEK_END) == 0) {
    resume_offset = ftello(packageFile.get());
  }

  // Only a front end that started the stage with pipes sends commands. The flag is read here:
  // a listener may start after its task is gone, and then it only waits for the stream's end.
  ++g_listeners;
  std::thread([this, forked = driver->forked] {
    if (forked) listen();
    --g_listeners;
  }).detach();

  CURLcode code = CurlOptions(curl)
                      .Set(CURLOPT_ERRORBUFFER, errorBuffer)
                      .Set(CURLOPT_HTTPHEADER, headers)
                      .Set(CURLOPT_HEADER, 0L)
                      .Set(CURLOPT_TCP_KEEPALIVE, 1L)
                      .Set(CURLOPT_WRITEDATA, packageFile.get())
                      .Set(CURLOPT_SSL_VERIFYPEER, 0L)
                      .Set(CURLOPT_SSL_VERIFYHOST, 0L)
                      .result();
  if (code != CURLE_OK) return code;

  progress = std::make_unique<DownloadProgress>();
  progress->totalSize = static_cast<int64_t>(expectedSize);
  progress->resumeOffset = resume_offset;
  progress->stream = packageFile.get();
  progress->sampleTime = SteadyNanos();
  return CurlOptions(curl)
      .Set(CURLOPT_XFERINFOFUNCTION, &RomDownload::xferinfo)
      .Set(CURLOPT_XFERINFODATA, progress.get())
      .Set(CURLOPT_NOPROGRESS, 0L)
      .result();
}

int RomDownload::xferinfo(void* record, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t) {
  auto* state = static_cast<DownloadProgress*>(record);
  const int64_t previous_sample = state->lastSample;
  state->lastNow = dlnow;
  if (previous_sample == dlnow) return gStopFlag;

  const int64_t current = state->resumeOffset + dlnow;
  if (current == state->totalSize) {
    fflush(state->stream);
    return 0;
  }

  // Whole percents only, each written once as it is reached.
  const int64_t hundredth = state->totalSize / 100;
  const int32_t percent = hundredth == 0 ? 0 : static_cast<int32_t>(current / hundredth);
  if (state->lastPercent < percent) {
    LOG(DEBUG) << "[xferinfo] " << ROM_DOWNLOAD << ":p:" << percent;
    status_channel::WriteProgress(gStatusWriteStream, percent);
    state->lastPercent = percent;
  }

  // The speed over the last second or so.
  const int64_t now = SteadyNanos();
  const double elapsed = static_cast<double>(now - state->sampleTime) / 1e9;
  if (elapsed >= 1.0) {
    const auto speed =
        static_cast<uint64_t>(static_cast<double>(current - state->lastSample) / elapsed);
    status_channel::WriteSpeed(gStatusWriteStream, speed);
    state->sampleTime = now;
    state->lastSample = current;
  }
  return gStopFlag;
}

void RomDownload::listen() {
  char line[kCommandLineSize];
  while (fgets(line, sizeof(line), gStatusReadStream) != nullptr) {
    line[strcspn(line, "\n")] = '\0';
    LOG(ERROR) << "---->receive command: " << line;
    switch (line[0]) {
      case 'c':
        if (curl != nullptr && curl_easy_pause(curl, CURLPAUSE_CONT) == CURLE_OK) {
          status_channel::WriteAcknowledge(driver->writeStream, ROM_DOWNLOAD, 'c');
        }
        break;
      case 'p':
        if (curl != nullptr && curl_easy_pause(curl, CURLPAUSE_RECV) == CURLE_OK) {
          status_channel::WriteAcknowledge(driver->writeStream, ROM_DOWNLOAD, 'p');
        }
        break;
      case 's':
        gStopFlag = kStopRequested;
        return;
      default:
        LOG(WARNING) << "RomDownload INVALID COMMAND: " << line;
        break;
    }
  }
}

void WaitForCommandListeners() {
  while (g_listeners > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

int RomDownload::OnExecuted() {
  std::string target = url.url();
  LOG(DEBUG) << ">> RomDownload::OnExecuted, url=" << target;
  CURLcode code = Perform(target);
  if (code != CURLE_OK) return code;

  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  char* redirect = nullptr;
  curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, &redirect);
  if (redirect == nullptr) return CURLE_OK;
  Restart(redirect);
  return CURLE_OK;
}

void RomDownload::Restart(const std::string& redirect) {
  LOG(DEBUG) << kRule;
  LOG(DEBUG) << ">> Redirected URL=" << redirect;
  driver->downloadUrl = std::make_unique<URLWrapper>(SplitRedirect(redirect));
  releaseResource();
  InitResource();
  run();
}

int RomDownload::PostExecuted() {
  LOG(DEBUG) << ">> RomDownload::PostExecuted";
  return SecureEvent::PostExecuted();
}

OutcomeCallback RomDownload::handleCurlCode(CURLcode code) {
  dgqstub(code);
  if (code == CURLE_OK || code == CURLE_ABORTED_BY_CALLBACK) return cbmap.at(OutcomeKey(code));
  LOG(DEBUG) << kRule;
  LOG(ERROR) << "Unexception(" << code << ") occurred...retry the downloading";
  // Every other failure starts the transfer again at once, appending to what arrived.
  return [this, code](DownloadStatus status) {
    status_channel::WriteFailure(driver->writeStream, status, code);
    releaseResource();
    InitResource();
    run();
    return true;
  };
}

void RomDownload::InitCbmap() {
  SecureEvent::InitCbmap();
  SetCallback(OutcomeKey(CURLE_OK), [this](DownloadStatus status) {
    LOG(DEBUG) << "[CURLE_OK] lastsize=" << progress->lastSample
               << ", lastresume=" << progress->resumeOffset << ", lastchunk=" << progress->lastNow
               << ", filetotalsize=" << progress->totalSize;
    progress->lastSample = progress->lastNow + progress->resumeOffset;
    LOG(INFO) << ">> Totally " << progress->lastSample << " bytes downloaded";
    fflush(packageFile.get());
    if (progress->lastSample == 0) {
      status_channel::WriteFailure(driver->writeStream, status, CURLE_GOT_NOTHING);
      return false;
    }
    driver->result = Md5OfFile(kSecureUpdatePackagePath);
    status_channel::WriteComplete(driver->writeStream, status, driver->result);
    if (next != nullptr) {
      next->run();
    } else {
      LOG(INFO) << status << " is the last task, byebye";
    }
    return true;
  });
  SetCallback(OutcomeKey(CURLE_ABORTED_BY_CALLBACK), [this](DownloadStatus status) {
    LOG(ERROR) << " CURLE_ABORTED_BY_CALLBACK lead to download stopped";
    status_channel::WriteStopped(driver->writeStream, status);
    return false;
  });
  SetCallback(OutcomeKey(CURLE_GOT_NOTHING), [this](DownloadStatus status) {
    status_channel::WriteFailure(driver->writeStream, status, CURLE_GOT_NOTHING);
    return false;
  });
  // Kept for completeness: handleCurlCode retries a short transfer before this is ever chosen.
  SetCallback(OutcomeKey(CURLE_PARTIAL_FILE), [this](DownloadStatus status) {
    status_channel::WriteFailure(driver->writeStream, status, CURLE_PARTIAL_FILE);
    return false;
  });
}

void RomDownload::releaseResource() {
  SecureEvent::releaseResource();
  packageFile.reset();  // Flushes and closes.
  progress.reset();
  gStopFlag = 0;
}

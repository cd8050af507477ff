/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

#define LOG_TAG "ROMDOWNLOAD"

#include "request/romdownload.h"

#include <android-base/logging.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "common/paths.h"
#include "yondatools/yonda-update/dir2url.h"

namespace {

constexpr char kRule[] = "######################################";
// Sizes of the parts of a redirect address; longer parts are cut.
constexpr size_t kSchemeSize = 16;
constexpr size_t kHostSize = 1024;
constexpr size_t kPathSize = 524288;
// The package is fetched over HTTP only, also where a redirect points.
constexpr char kAllowedProtocols[] = "http,https";
// Longest wait for the socket before libcurl's own timers are looked at again.
constexpr int kPollTimeoutMs = 1000;
// libcurl's receive buffer: a multi-gigabyte package arrives in fewer, larger pieces.
constexpr long kReceiveBufferSize = 512 * 1024;
// How far the digest may fall behind the bytes this process received before the transfer waits
// for it, and how far it must catch up then: a mirror faster than the digest is slowed to its
// pace, so that the completion line follows the last byte at once. A wait lasts as long as
// hashing the difference takes, about a millisecond; a digest that needs longer (it is still
// busy with a large file that an earlier process left) holds the transfer in libcurl instead,
// while the front end's commands are answered.
constexpr uint64_t kMaxDigestLag = 1536 * 1024;
constexpr uint64_t kResumeDigestLag = 512 * 1024;
constexpr std::chrono::milliseconds kDigestPatience{10};
// Every piece that is received while the digest is within its lag waits for it in memory.
static_assert(kMaxDigestLag + kReceiveBufferSize <= PackageDigest::kMemoryBytes);

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

// Keeps an easy handle in a multi handle for one transfer.
class MultiAttachment {
 public:
  MultiAttachment(CURLM* multi, CURL* easy) : multi_(multi), easy_(easy) {
    result_ = curl_multi_add_handle(multi_, easy_);
  }
  ~MultiAttachment() {
    if (result_ == CURLM_OK) curl_multi_remove_handle(multi_, easy_);
  }
  CURLMcode result() const { return result_; }

 private:
  CURLM* multi_;
  CURL* easy_;
  CURLMcode result_;
};

}  // namespace

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

RomDownload::RomDownload()
    : NetworkTask(LOG_TAG),
      multi_(curl_multi_init()),
      digest_(kSecureUpdatePackagePath, [this] { curl_multi_wakeup(multi_.get()); }),
      listener_([this] {
        // The nudge first: a wait for the digest ends before the loop can take the command.
        digest_.Nudge();
        curl_multi_wakeup(multi_.get());
      }) {}

RomDownload::~RomDownload() {
  listener_.Stop();
  RomDownload::releaseResource();
}

std::string RomDownload::getDescriptor() {
  return "RomDownload";
}

void RomDownload::run() {
  listener_.Start(stage->commandFd);
  int redirected = 0;
  while (true) {
    ApplyCommands();
    if (StopRequested()) return Stopped();
    std::optional<CURLcode> outcome = Attempt();
    if (!outcome) break;
    if (*outcome == CURLE_OK && redirect_) {
      ++redirected;
      FollowRedirect();
      continue;
    }
    if (*outcome == CURLE_OK) {
      if (!AwaitDigest()) return Stopped();
      Completed();
      break;
    }
    if (*outcome == CURLE_ABORTED_BY_CALLBACK) return Stopped();
    Retry(*outcome);
  }
  // Each redirected transfer completed before the download it led to began; its own completion
  // is reported once that download has ended.
  for (; redirected > 0; --redirected) Completed();
}

std::optional<CURLcode> RomDownload::Attempt() {
  LogBanner();
  if (!stage->downloadUrl) {
    // The first stage found no package address (no ROM, or no plain-HTTP mirror).
    LOG(ERROR) << ">> RomDownload has no url info!! End the RomDownload";
    status_channel::WriteFailure(stage->status, index, CURLE_URL_MALFORMAT);
    return std::nullopt;
  }
  const URLWrapper address = *stage->downloadUrl;
  LOG(INFO) << ">> RomDownload url " << address.url();
  // A missing or broken size file means a broken layout: the conversion error ends the run.
  expectedSize = std::stoul(getFileSize(), nullptr, 10);
  resolved_ = false;
  Resolve(address);
  if (!resolved_) return std::nullopt;  // The lookup failed; the resolver said why.
  return static_cast<CURLcode>(Executed(stage));
}

int RomDownload::Executed(StageRecord* task_stage) {
  stage = task_stage;
  int code = PreExecuted();
  if (code != CURLE_OK) return code;
  return OnExecuted();
}

int RomDownload::PreExecuted() {
  struct stat held;
  CURLcode code = OpenTransferFile(kSecureUpdatePackagePath, "updatefile=", [&] {
    packageFile.reset(TEMP_FAILURE_RETRY(
        open(kSecureUpdatePackagePath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666)));
    return packageFile.ok() && fstat(packageFile.get(), &held) == 0;
  });
  if (code != CURLE_OK) return code;
  // What an earlier attempt left stays; the new body is appended after it.
  const int64_t resume_offset = held.st_size;
  digest_.Held(held.st_size);

  code = CurlOptions(curl)
             .Set(CURLOPT_ERRORBUFFER, errorBuffer)
             .Set(CURLOPT_HTTPHEADER, headers)
             .Set(CURLOPT_HEADER, 0L)
             .Set(CURLOPT_TCP_KEEPALIVE, 1L)
             .Set(CURLOPT_WRITEFUNCTION, &RomDownload::WritePackage)
             .Set(CURLOPT_WRITEDATA, this)
             .Set(CURLOPT_BUFFERSIZE, kReceiveBufferSize)
             .Set(CURLOPT_SSL_VERIFYPEER, 0L)
             .Set(CURLOPT_SSL_VERIFYHOST, 0L)
             .Set(CURLOPT_PROTOCOLS_STR, kAllowedProtocols)
             .Set(CURLOPT_REDIR_PROTOCOLS_STR, kAllowedProtocols)
             .result();
  if (code != CURLE_OK) return code;

  progress = std::make_unique<DownloadProgress>();
  progress->totalSize = static_cast<int64_t>(expectedSize);
  progress->resumeOffset = resume_offset;
  progress->sampleTime = SteadyNanos();
  progress->status = stage->status;
  progress->stopFlag = &listener_.stopFlag();
  return CurlOptions(curl)
      .Set(CURLOPT_XFERINFOFUNCTION, &RomDownload::xferinfo)
      .Set(CURLOPT_XFERINFODATA, progress.get())
      .Set(CURLOPT_NOPROGRESS, 0L)
      .result();
}

int RomDownload::xferinfo(void* record, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t) {
  auto* state = static_cast<DownloadProgress*>(record);
  const int32_t stop = state->stopFlag != nullptr ? state->stopFlag->load() : 0;
  const int64_t previous_sample = state->lastSample;
  state->lastNow = dlnow;
  if (previous_sample == dlnow) return stop;

  const int64_t current = state->resumeOffset + dlnow;
  // Every byte is in the file as soon as it arrives; at the whole size there is nothing to say.
  if (current == state->totalSize) return 0;

  // Whole percents only, each written once as it is reached.
  const int64_t hundredth = state->totalSize / 100;
  const int32_t percent = hundredth == 0 ? 0 : static_cast<int32_t>(current / hundredth);
  if (state->lastPercent < percent) {
    LOG(DEBUG) << "[xferinfo] " << ROM_DOWNLOAD << ":p:" << percent;
    status_channel::WriteProgress(state->status, percent);
    state->lastPercent = percent;
  }

  // The speed over the last second or so.
  const int64_t now = SteadyNanos();
  const double elapsed = static_cast<double>(now - state->sampleTime) / 1e9;
  if (elapsed >= 1.0) {
    const auto speed =
        static_cast<uint64_t>(static_cast<double>(current - state->lastSample) / elapsed);
    status_channel::WriteSpeed(state->status, speed);
    state->sampleTime = now;
    state->lastSample = current;
  }
  return stop;
}

size_t RomDownload::WritePackage(char* data, size_t size, size_t count, void* task) {
  auto* self = static_cast<RomDownload*>(task);
  // The piece stays in libcurl while the download is paused, while a command waits to be applied
  // or a stop to be honoured (so that libcurl returns to the download's loop at once), and while
  // the digest is further behind than a moment's wait.
  if (self->paused_ || self->listener_.CommandWaiting()) {
    self->recvPaused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  if (!self->digest_.CatchUp(kMaxDigestLag, kResumeDigestLag, kDigestPatience)) {
    self->recvPaused_ = true;
    self->heldForDigest_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  const size_t length = size * count;
  size_t written = 0;
  while (written < length) {
    const ssize_t n =
        TEMP_FAILURE_RETRY(write(self->packageFile.get(), data + written, length - written));
    if (n <= 0) break;
    written += n;
  }
  self->digest_.Received(data, written);
  return written;
}

int RomDownload::OnExecuted() {
  CURLcode code = SetTransferUrl();
  if (code == CURLE_OK) code = Transfer();
  if (code != CURLE_OK) return code;

  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  char* redirect = nullptr;
  curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, &redirect);
  if (redirect == nullptr) return CURLE_OK;
  LOG(DEBUG) << kRule;
  LOG(DEBUG) << ">> Redirected URL=" << redirect;
  redirect_ = SplitRedirect(redirect);
  return CURLE_OK;
}

CURLcode RomDownload::Transfer() {
  MultiAttachment attachment(multi_.get(), curl);
  if (attachment.result() != CURLM_OK) {
    LOG(ERROR) << "failed to start the transfer: " << curl_multi_strerror(attachment.result());
    return CURLE_FAILED_INIT;
  }
  transferring_ = true;
  recvPaused_ = false;
  heldForDigest_ = false;
  resumeFailure_ = CURLE_OK;
  bool stopped = false;
  int running = 1;
  CURLMcode multi_code = CURLM_OK;
  while (true) {
    ApplyCommands();
    if (StopRequested()) {
      stopped = true;
      break;
    }
    if (resumeFailure_ != CURLE_OK) break;
    multi_code = curl_multi_perform(multi_.get(), &running);
    if (multi_code != CURLM_OK || running == 0) break;
    // A transfer held for the digest runs again once the digest has nearly caught up; until
    // then the digest wakes this loop. libcurl watches no socket of a held transfer, so the
    // wake is asked for after every step that may have held it.
    if (heldForDigest_ && !paused_ && !digest_.WakeWhenBehindBy(kResumeDigestLag)) {
      ResumeTransfer();
      continue;
    }
    multi_code = curl_multi_poll(multi_.get(), nullptr, 0, kPollTimeoutMs, nullptr);
    if (multi_code != CURLM_OK) break;
  }
  transferring_ = false;
  recvPaused_ = false;
  heldForDigest_ = false;
  if (stopped) return CURLE_ABORTED_BY_CALLBACK;
  if (resumeFailure_ != CURLE_OK) {
    // The held piece could not be written when the transfer ran again; libcurl dropped it.
    LOG(ERROR) << "transfer failed: " << curl_easy_strerror(resumeFailure_);
    return resumeFailure_;
  }
  if (multi_code != CURLM_OK) {
    LOG(ERROR) << "transfer failed: " << curl_multi_strerror(multi_code);
    return CURLE_FAILED_INIT;
  }
  CURLcode code = CURLE_FAILED_INIT;
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg == CURLMSG_DONE && message->easy_handle == curl) code = message->data.result;
  }
  return code;
}

bool RomDownload::AwaitDigest() {
  while (true) {
    ApplyCommands();
    if (StopRequested()) return false;
    if (!digest_.WakeWhenBehindBy(0)) return true;
    curl_multi_poll(multi_.get(), nullptr, 0, kPollTimeoutMs, nullptr);
  }
}

void RomDownload::ApplyCommands() {
  while (const char command = listener_.Take()) {
    if (command == 'p') {
      paused_ = true;
      // A transfer that has no connection yet is held by the write callback instead.
      if (transferring_ && !recvPaused_ && curl_easy_pause(curl, CURLPAUSE_RECV) == CURLE_OK) {
        recvPaused_ = true;
      }
    } else {
      paused_ = false;
      if (transferring_ && recvPaused_) ResumeTransfer();
    }
    status_channel::WriteAcknowledge(stage->status, ROM_DOWNLOAD, command);
  }
}

void RomDownload::ResumeTransfer() {
  // libcurl may hand the held piece over at once; the write callback can hold it again. When
  // that write fails, libcurl drops the piece and says so only here: the transfer must end.
  recvPaused_ = false;
  heldForDigest_ = false;
  const CURLcode code = curl_easy_pause(curl, CURLPAUSE_CONT);
  if (code != CURLE_OK && resumeFailure_ == CURLE_OK) resumeFailure_ = code;
}

bool RomDownload::StopRequested() const {
  return listener_.stopFlag() != 0 || (paused_ && listener_.StreamEnded());
}

void RomDownload::Completed() {
  dgqstub(CURLE_OK);
  // A redirect whose new address could not be resolved leaves an attempt without a transfer:
  // it received nothing.
  DownloadProgress nothing;
  DownloadProgress& record = progress ? *progress : nothing;
  LOG(DEBUG) << "[CURLE_OK] lastsize=" << record.lastSample
             << ", lastresume=" << record.resumeOffset << ", lastchunk=" << record.lastNow
             << ", filetotalsize=" << record.totalSize;
  record.lastSample = record.lastNow + record.resumeOffset;
  LOG(INFO) << ">> Totally " << record.lastSample << " bytes downloaded";
  if (record.lastSample == 0) {
    status_channel::WriteFailure(stage->status, index, CURLE_GOT_NOTHING);
    return;
  }
  // Whole by now: the download's own completion waited for it.
  stage->result = digest_.Hex().value_or("");
  status_channel::WriteComplete(stage->status, index, stage->result);
  RunNextTask(std::to_string(index) + " is the last task, byebye");
}

void RomDownload::Stopped() {
  dgqstub(CURLE_ABORTED_BY_CALLBACK);
  LOG(ERROR) << " CURLE_ABORTED_BY_CALLBACK lead to download stopped";
  status_channel::WriteStopped(stage->status, index);
}

void RomDownload::Retry(CURLcode code) {
  dgqstub(code);
  LOG(DEBUG) << kRule;
  LOG(ERROR) << "Unexception(" << code << ") occurred...retry the downloading";
  status_channel::WriteFailure(stage->status, index, code);
  releaseResource();
  InitResource();
}

void RomDownload::FollowRedirect() {
  stage->downloadUrl = std::make_unique<URLWrapper>(std::move(*redirect_));
  redirect_.reset();
  releaseResource();
  InitResource();
}

void RomDownload::releaseResource() {
  SecureEvent::releaseResource();
  packageFile.reset();
  progress.reset();
}

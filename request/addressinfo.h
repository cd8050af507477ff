/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update query task: posts the enciphered device document to the update server, deciphers
// the answer and lays the offered ROM out. In the update boot environment it can instead replay a
// query and an answer recorded while the device ran its normal system.

#pragma once

#include <string>

#include "common/unique_file.h"
#include "request/secure_event.h"

class AddressInfo : public NetworkTask<AddressInfo> {
 public:
  AddressInfo();

  void run() override;
  std::string getDescriptor() override;
  int PreExecuted() override;
  int OnExecuted() override;
  // Interprets the clear answer: lays out the offered ROM, or records that there is none.
  void PostExecutedFinal(const char* text);

 protected:
  // Deciphers the answer (or takes the recorded one) and lays it out.
  void ProcessResponse() override;

 private:
  // The raw answer as the transfer writes it.
  UniqueFile outputFile;
  // The form body posted; it must outlive the transfer.
  std::string postBody;
};

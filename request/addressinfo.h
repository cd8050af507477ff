/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The update query task: posts the enciphered device document to the update server, deciphers
// the answer and lays the offered ROM out. In the update boot environment it can instead replay a
// query and an answer recorded while the device ran its normal system.

#pragma once

#include <string>

#include "common/string_map.h"
#include "common/unique_file.h"
#include "request/secure_event.h"

class AddressInfo : public NetworkTask<AddressInfo> {
 public:
  AddressInfo();

  std::string getDescriptor() override;
  int PreExecuted() override;
  int OnExecuted() override;
  // Interprets the clear answer: lays out the offered ROM, or records that there is none.
  void PostExecutedFinal(const char* text);

 protected:
  // Builds the enciphered query and the update host's address.
  std::optional<URLWrapper> Address() override;
  // Builds the form body to post, or takes the one recorded in the system.
  void Prepare(const URLWrapper& address) override;
  // Deciphers the answer (or takes the recorded one) and lays it out.
  void ProcessResponse() override;

 private:
  // The raw answer as the transfer writes it.
  UniqueFile outputFile;
  // The query's parameters, from the address until the form body is built.
  StringMap params;
  // The form body posted; it must outlive the transfer.
  std::string postBody;
};

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// TraceRecorder keeps the trace lines that the library writes while it lives.
//
//   TraceRecorder traces("IpsecKeyGen=0-4");
//   EXPECT_FALSE(dh.initIpsecDH());
//   EXPECT_EQ(traces.errors(), std::vector<std::string>{"IpsecDHGeneral::initIpsecDH Cannot initialize ..."});
#pragma once

#include "platform/testing/TraceCapture.h"

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Ipsec::Testing {

class TraceRecorder {
 public:
  // Switches levels on by handle name ("IpsecUtils=0-8,IpsecKeyGen=0"). They are not switched back. An empty text
  // changes no levels. A malformed text fails the running test.
  explicit TraceRecorder(std::string_view levels = {});

  // Returns every line so far, of both sinks, in order.
  std::vector<Cor::TraceLine> lines() const;

  // Returns the messages of the ring buffer: those that went through DualTrace, whatever the levels are.
  std::vector<std::string> errors() const;

  // Returns the messages of the text traces, of one level or of all.
  std::vector<std::string> text() const;
  std::vector<std::string> text(unsigned level) const;

  // Returns whether any line contains these bytes, in the message or in any other field.
  bool mentions(std::string_view bytes) const;

  void clear();

 private:
  mutable std::mutex guard;
  std::vector<Cor::TraceLine> recorded;
  Cor::TraceCapture capture;  // Last, so that no line comes before the other members exist or after they end.
};

}  // namespace Ipsec::Testing

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Trace capture: shows a test every line that is traced in its process. Every platform that runs the tests implements
// it. Nothing in the library may use it.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace Cor {

enum class TraceSink { Text, Ring };

// One line, as it was given to a sink. A line of DualTrace appears twice: once for the ring and then, if its level is
// enabled, once for the text trace. The ring has neither handles nor levels, so they are empty and 0 there.
struct TraceLine {
  std::string handle;
  unsigned level;
  std::string file;
  int line;
  std::string function;
  std::string message;
  TraceSink sink;
};

// As long as the capture lives, calls the listener for every line of the process, whichever thread writes it. The lines
// still go to their sinks. Several captures may live at once, and each sees every line.
//
// Only one thread at a time calls the listener. An exception that it throws is dropped, and so are lines that it traces
// itself. It may not create or destroy a capture. When the destructor has returned, the listener is no longer called.
class TraceCapture {
 public:
  explicit TraceCapture(std::function<void(const TraceLine&)> newListener);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  void show(const TraceLine& line) const { listener(line); }

 private:
  std::function<void(const TraceLine&)> listener;
};

// Switches levels by handle name, with the syntax of TRACE_LEVELS: "IpsecKeyGen=0-4,IpsecUtils=0-8". All handles with a
// name in the text get exactly the levels given there, including handles that are created later. Other names keep their
// levels. Returns false for a malformed text, and then changes nothing.
bool setTraceLevels(std::string_view text);

}  // namespace Cor

#pragma GCC visibility pop

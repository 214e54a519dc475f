// Trace capture: shows a test, inside its own process, every line that the trace facilities write. Part of the stand-in
// platform only: nothing in the library may use it.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace Cor {

enum class TraceSink { Text, Ring };

// One line, as it was handed to a sink. A line of DualTrace is two: one for the ring, then, if its level is enabled, one
// for the text trace. The ring has neither handles nor levels: they are empty and 0 there.
struct TraceLine {
  std::string handle;
  unsigned level;
  std::string file;
  int line;
  std::string function;
  std::string message;
  TraceSink sink;
};

// Calls the listener for every line of the process, whatever thread writes it, as long as the capture lives. The lines
// still go to their sinks. Several captures may live at once, and each sees every line.
//
// The listener is called by one thread at a time. What it throws is dropped, and so are lines that it causes itself. It
// may not make or destroy a capture. When the destructor has returned, the listener is not called any more.
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

// Switches levels by handle name, with the syntax of TRACE_LEVELS: "IpsecKeyGen=0-4,IpsecUtils=0-8". Handles of a named
// name get exactly the levels given, those that exist as well as those made later; other names keep theirs. Returns
// false for a malformed text, which changes nothing.
bool setTraceLevels(std::string_view text);

}  // namespace Cor

#pragma GCC visibility pop

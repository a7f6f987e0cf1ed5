// A destination of a component's own, for lines that are not records of the process log (an
// access log's, say): opened from the same texts and under the same file confinement as the
// process log's destination (see Log.h), written line by line, and reopened by reopen() together
// with the process log's file, so that an outside tool may rename every log file at once.
//
// Threads: write(), flush() and reopen() are safe from any thread, concurrently with each other
// and with foundation::log::reopen(); each call holds only this destination's own lock while it
// writes, flushes or opens. Construction and destruction register and withdraw the destination
// for foundation::log::reopen() (which holds a process-wide lock while it reopens).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "foundation/Export.h"

namespace foundation {
namespace log {

class CONNECTOR_EXPORT line_destination {
 public:
  // Opens `text` ("stdout", "stderr", "null", "file:PATH", "rotating:MAX_BYTES:FILES:PATH" or
  // "async:" before one of them). Throws like set_destination(): std::invalid_argument for a text
  // that is not understood or not allowed, std::runtime_error for a file that cannot be opened.
  explicit line_destination(const std::string& text);
  ~line_destination();
  line_destination(const line_destination&) = delete;
  line_destination& operator=(const line_destination&) = delete;

  // Writes `line` and a newline, exactly: no time, level or name around it. Throws when the
  // destination fails.
  void write(std::string_view line);
  // Makes what was written reach the file or stream. Throws when the destination fails.
  void flush();
  // Opens the file again by name; does nothing for a destination without a file (stdout, null).
  // Throws like the constructor when the file cannot be opened again (the old one stays in use).
  void reopen();

  const std::string& text() const noexcept;

 private:
  struct state;
  const std::unique_ptr<state> state_;
};

// Reopens the file of every line_destination alive; foundation::log::reopen() calls it. Returns
// the first failure's text, or an empty string when every file was reopened.
CONNECTOR_EXPORT std::string reopen_line_destinations();

}  // namespace log
}  // namespace foundation

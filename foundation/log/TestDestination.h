// A hook for tests and benchmarks of the process log and of anything that writes to it: a
// destination whose records are handed to a function, e.g. to record them or to stall.
//
// Definitions are process-wide and kept until the process ends; safe from any thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "foundation/Export.h"

namespace foundation {
namespace log {
namespace testing {

// Makes "test:NAME" a destination (also behind "async:") that hands each record, formatted and
// ending in a line feed, to `write`, one record at a time, on the thread that writes to the
// destination (the background thread behind "async:"). A destination opened later uses the new
// function when NAME is defined again; one already open keeps the old.
CONNECTOR_EXPORT void define_test_destination(const std::string& name,
                                              std::function<void(std::string_view record)> write);

}  // namespace testing
}  // namespace log
}  // namespace foundation

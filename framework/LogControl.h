// Control of the process log (foundation/log): where it writes and at which levels.
//
// Which to use: these four functions are the framework's face of the process log, the one the
// library's connector.log.* commands (LoggingCommandProvider) call, so they are what operators
// reach. They forward to foundation::log::destination(), set_destination(), specification() and
// set_specification(), with the same texts, errors and effects; a host may call either. What
// only foundation/log/Log.h offers is confinement: a host that lets anyone run commands calls
// foundation::log::confine_file_destinations(DIR) once at start-up, before it registers
// LoggingCommandProvider, so that setLogDestination (from a command or from code) can only open
// files inside DIR. Nothing here changes or lifts the confinement.
//
// A destination is one of "stderr" (the initial one), "stdout", "null" or "file:PATH"
// (appending). A specification is a default level followed by per-channel overrides, e.g.
// "info" or "warn,connector.*=debug", with the levels trace, debug, info, warn, error,
// critical and off; the initial one is "info". A setter that refuses its input throws (see each
// function) and leaves the previous setting in force. All four are safe from any thread,
// concurrently with each other and with threads that log.
#pragma once

#include <string>

#include "foundation/Export.h"

namespace connector {
namespace common {

// The destination in force, as it was set.
CONNECTOR_EXPORT std::string getLogDestination();

// Moves every channel to `destination`. Throws std::invalid_argument for an unknown form, a file
// outside the confinement directory or an existing file that is not a regular one, and
// std::runtime_error when the file or its directory cannot be opened.
CONNECTOR_EXPORT void setLogDestination(const std::string& destination);

// The specification in force, as it was set.
CONNECTOR_EXPORT std::string getLogSpecification();

// Applies `specification` to existing and future channels. Throws std::invalid_argument for an
// unknown level or a malformed text.
CONNECTOR_EXPORT void setLogSpecification(const std::string& specification);

}  // namespace common
}  // namespace connector

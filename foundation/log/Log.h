// The process log: named channels that the code of the process writes records to, one
// destination that every channel writes to, and a specification of the level each channel
// passes.
//
// State: the channels, the destination, the specification and the confinement directory exist
// once per process, inside connector_common_services, and live until the process ends (a channel
// handle may be used from static destructors). A `channel` is a cheap handle onto a process-wide
// channel; copies share it.
//
// Threads: every function and every member of `channel` is safe from any thread, concurrently
// with each other. Records written while the destination or specification changes go either to
// the old setting or to the new one, never lost and never torn.
//
// Destination texts:
//   "stderr"      standard error (the initial destination)
//   "stdout"      standard output
//   "null"        discard every record
//   "file:PATH"   append to the file PATH, creating it if needed (its directory must exist);
//                 every record is flushed as it is written. When a confinement directory is set,
//                 a relative PATH is taken relative to it.
//   "rotating:MAX_BYTES:FILES:PATH"
//                 like "file:PATH", but before a record would take the file past MAX_BYTES (1 to
//                 1024M; a number of bytes, or of KiB or MiB when it ends in K or M) the file is
//                 renamed PATH's stem + ".1" + extension (app.1.log), older ones move up by one
//                 and FILES of them (0 to 1000) are kept. Confined like "file:".
//   "async:DEST"  DEST (any of the above) behind a queue of 8,192 records that one background
//                 thread writes out, flushing whenever the queue is empty. Writing a record never
//                 waits for DEST: when the queue is full the oldest queued record is dropped and
//                 counted, and once the queue has room again (the overflow is over)
//                 it writes one warn record (channel "foundation.log") saying how many were
//                 dropped since the last such record. Records of the audit channel travel in a lane
//                 of their own (256 records, its own thread), which other channels cannot overrun and
//                 no writer waits for: a command's record reserves its place when the command arrives,
//                 and a full lane refuses the command (see audit_route); any other audit record that
//                 finds it full is dropped and counted. Queued and dropped counts include the lane.
//                 When the destination changes, and when the process exits
//                 normally (exit() or a return from main), the queue is written out to DEST
//                 before DEST is closed; records written after that, from static destructors,
//                 go straight to DEST.
//   "json:DEST"   DEST (any of the above) with every record written as one JSON object per line
//                 (below). "json:" comes first: "json:async:file:app.log".
//
// Records: one line each, "[2026-11-24T11:24:42.204Z] [CHANNEL] [LEVEL] TEXT", the time in UTC
// (ISO 8601 with milliseconds and "Z") and the level spelled as in specifications ("warn"). Under
// "json:", {"time":"2026-11-24T11:24:42.204Z","channel":"CHANNEL","level":"LEVEL","text":"TEXT"}:
// every line parses as JSON whatever bytes TEXT holds (a byte that is not UTF-8 becomes U+FFFD).
//
// Specification texts: comma-separated items, each either a level (the default for every channel)
// or PATTERN=LEVEL (an override for the channels whose name matches the shell-style PATTERN,
// fnmatch(3) without flags, so `*` also matches dots). At most one default; without one the
// default is info. When several overrides match a channel, the last one wins. Blanks around items
// and around `=` are ignored. Levels, from most to least verbose: trace, debug, info, warn, error,
// critical, off. Examples: "info", "warn,connector.*=debug", "off,connector.delivery=trace".
// The initial specification is "info". A specification may be set for a time
// (set_specification_for()): when the time is up, the one in force before it is restored,
// unless another specification was set meanwhile, and the restore is written as an info record
// of channel "foundation.log" (what was restored, after how many seconds).
//
// Threads of its own: the background thread of an "async:" destination (one per such destination,
// joined when it is drained) and, from the first timed specification on, one thread that waits
// for the restore; both are joined when the process exits normally.
//
// Errors: a setter that refuses its input throws and leaves the previous setting in force.
// std::invalid_argument for a text that is not understood or not allowed, std::runtime_error for
// a file that cannot be opened. The message names the offending text and what would be accepted.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Export.h"

namespace foundation {
namespace log {

enum class level { trace, debug, info, warn, error, critical, off };

// The channel of the audit trail: one info record per administration command run. Its records
// pass every specification except one with an override that names this channel exactly (the
// last such override sets its level; otherwise it is info), so "off" or "connector.*=off" do not
// silence it but "connector.audit=off" does.
inline constexpr const char* audit_channel_name = "connector.audit";

namespace detail {
struct channel_core;  // the process-wide channel behind a handle; defined in Log.cpp
struct audit_target;  // a destination held for one audit record; defined in Log.cpp
}  // namespace detail

// A handle onto the process channel of a given name. Constructing one with a name that already
// exists joins that channel; otherwise the channel is created, listed by the admin (after every
// channel created before it) and given the level the current specification assigns to its name.
// Channels are never removed.
class CONNECTOR_EXPORT channel {
 public:
  // Throws std::invalid_argument for an empty name.
  explicit channel(const std::string& name);

  const std::string& name() const noexcept;

  // Whether a record at `severity` would be written now. Use it to skip building costly texts.
  bool enabled(level severity) const noexcept;

  // Writes one record if `severity` passes the channel's level. `off` is not a severity: a record
  // written at `off` is dropped. A destination that fails to write (a full disk) does not throw:
  // spdlog reports the failure on standard error (at most once a second) and the record is lost.
  void write(level severity, std::string_view text) const;

  void trace(std::string_view text) const { write(level::trace, text); }
  void debug(std::string_view text) const { write(level::debug, text); }
  void info(std::string_view text) const { write(level::info, text); }
  void warn(std::string_view text) const { write(level::warn, text); }
  void error(std::string_view text) const { write(level::error, text); }
  void critical(std::string_view text) const { write(level::critical, text); }

 private:
  std::shared_ptr<detail::channel_core> core_;
};

// Where the audit record of one command goes: the destination in force when the route was made
// (when the command arrived), and whether the audit channel passed info records then. A record
// written through it reaches that destination even when the command has since moved the
// destination or silenced the audit channel, so no command can leave its own record nowhere; it
// is counted in statistics().records. Copies share the destination, which stays open while any
// route holds it. Behind "async:" the route reserves a place in the audit lane when it is made,
// so the record never waits for the destination, and writable() is false when the lane is full:
// the caller must then refuse the command. Safe from any thread.
class CONNECTOR_EXPORT audit_route {
 public:
  audit_route();

  // Whether write() will reach the destination (true also when the audit channel did not pass).
  bool writable() const noexcept;

  // Writes one info record on the audit channel, once per route; nothing when the channel did
  // not pass on arrival or writable() is false.
  void write(std::string_view text) const;

 private:
  std::shared_ptr<const detail::audit_target> target_;
};

// The destination in force, exactly as it was set (initially "stderr").
CONNECTOR_EXPORT std::string destination();

// Moves every channel, existing and future, to `text` (see the syntax above). Later records land
// there; the previous destination is closed once no record is being written to it.
CONNECTOR_EXPORT void set_destination(const std::string& text);

// The specification in force, exactly as it was set (initially "info").
CONNECTOR_EXPORT std::string specification();

// Applies `text` (see the syntax above) to every channel, existing and future. Cancels a
// pending restore.
CONNECTOR_EXPORT void set_specification(const std::string& text);

// Applies `text` now and restores the specification in force before it once `duration` (1 to
// 86,400 seconds) has passed, unless set_specification() is called meanwhile (which ends the
// window: nothing is restored). Called again while a restore is pending, it replaces the window
// (the restore is `duration` from now) and keeps what will be restored: the specification in
// force before the first timed one, so re-issuing to extend a window never leaves it on. Throws
// std::invalid_argument for a duration outside that range or a text that set_specification() would refuse,
// and then changes nothing (a pending restore stays).
CONNECTOR_EXPORT void set_specification_for(std::chrono::seconds duration, const std::string& text);

// Closes the file of the destination in force ("file:", "rotating:", or "async:" before one of
// them) and opens it again by name, so that after an outside tool renamed it new records land in
// a new file. Every record goes to exactly one of the two files. Throws std::invalid_argument
// when the destination has no file, and like set_destination() when the file cannot be opened
// again; the old file then stays in use. The file of every line_destination (LineDestination.h)
// is reopened too, even when the process log's cannot be; a failure of one of those throws
// std::runtime_error with its text, after all the others were reopened.
CONNECTOR_EXPORT void reopen();

// What the process log has done, at one moment.
struct statistics_snapshot {
  std::uint64_t records = 0;  // records the channels passed to a destination since the process began
  std::uint64_t dropped = 0;  // records "async:" queues dropped since the process began
  // Of `records`, those of each level, indexed by `level` (trace to critical).
  std::array<std::uint64_t, static_cast<std::size_t>(level::off)> records_by_level{};
  std::uint64_t rotations = 0;  // files "rotating:" destinations rotated since the process began
  std::uint64_t reopens = 0;    // successful reopen() calls of the process log's file since it began
  std::uint64_t queued = 0;     // records waiting in the "async:" queue of the destination in force
  std::string destination;      // the destination in force, as set
  struct restore {
    std::string specification;       // what will be restored
    std::chrono::seconds remaining;  // when, rounded up
  };
  std::optional<restore> pending_restore;  // set by set_specification_for(), until it happens
};
CONNECTOR_EXPORT statistics_snapshot statistics();

// Confines "file:" destinations to `directory`, which must exist: later set_destination() calls
// refuse a file that does not lie inside it, whether by an absolute path, a `..` component or a
// symbolic link (for the file itself or for any directory on the way). The check is made again
// after the file is opened. Meant to be called once by the host at start-up, before it offers
// the log commands to operators; the destination in force is not re-checked. An empty text lifts
// the confinement. Throws std::invalid_argument when `directory` does not exist or is not a
// directory, and then leaves the previous confinement in force.
CONNECTOR_EXPORT void confine_file_destinations(const std::string& directory);

// The confinement directory in force, as an absolute path without symbolic links; empty if none.
CONNECTOR_EXPORT std::string file_destination_confinement();

}  // namespace log
}  // namespace foundation

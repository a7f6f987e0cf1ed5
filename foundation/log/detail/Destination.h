// Opening the sink that a destination text names ("stderr", "stdout", "null", "file:PATH",
// "rotating:MAX_BYTES:FILES:PATH", "async:DEST", and "test:NAME" once a test has defined NAME),
// under the process log's file confinement, and the operations on an open destination that go
// beyond writing: reopening its file, its queue's counts, draining its queue.
//
// Internal to connector_common_services (not installed): the process log and any provider with
// a destination of its own (an access log, say) open their sinks here, so that every
// destination accepts the same texts and obeys the same confinement. Each call opens a new sink
// and touches no shared state; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include <spdlog/common.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/sink.h>

namespace foundation {
namespace log {
namespace detail {

// Opens the destination `text` (see foundation/log/Log.h for the forms); `confinement` is the directory that
// file destinations must lie in, or empty when they are free. Throws std::invalid_argument for a text that is
// not understood or not allowed, std::runtime_error for a file that cannot be opened; each message names the
// text and what would be accepted.
std::shared_ptr<spdlog::sinks::sink> open_destination(const std::string& text,
                                                      const std::filesystem::path& confinement);

// The same, under the confinement the process log has in force.
std::shared_ptr<spdlog::sinks::sink> open_destination(const std::string& text);

// A file that a destination may write to: where it is, and the handlers that check it once
// opened. `path_text` is the PATH part of `text`. Throws like open_destination().
struct file_target {
  std::filesystem::path path;
  spdlog::file_event_handlers handlers;
};
file_target prepare_file(const std::string& text, const std::string& path_text,
                         const std::filesystem::path& confinement);

// Opens the file of a destination opened here ("file:", "rotating:", or "async:" over one of
// them) again by name. Throws std::invalid_argument naming `text` when it has no file, and like
// open_destination() when the file cannot be opened again (the old one then stays in use).
void reopen_destination(spdlog::sinks::sink& destination, const std::string& text);

// Files that "rotating:" destinations have rotated since the process began. Any thread.
std::uint64_t rotations();

// The queue of an "async:" destination; zero for the others.
struct queue_counts {
  std::size_t dropped = 0;  // records dropped so far
  std::size_t queued = 0;   // records waiting now
};
queue_counts queue_counts_of(spdlog::sinks::sink& destination);

// The destination behind an "async:" queue; null for the others.
std::shared_ptr<spdlog::sinks::sink> behind_queue(spdlog::sinks::sink& destination);

// Writes out the queue of an "async:" destination and stops its thread (later records are
// written on the writer's thread); does nothing for the others. Returns the records it dropped.
// Only once no writer can reach the destination any more (see async_sink::drain()).
std::size_t drain_destination(spdlog::sinks::sink& destination);

// An audit record of one command on `destination`: reserve_audit() makes room for it before the
// command runs (false when an "async:" destination's audit lane is full; always true for the
// others), then write_audit() writes it, or release_audit() gives the room back unused.
bool reserve_audit(spdlog::sinks::sink& destination);
void write_audit(spdlog::sinks::sink& destination, const spdlog::details::log_msg& msg);
void release_audit(spdlog::sinks::sink& destination);

// The sentence that error texts end with: which destinations exist, with an example file that
// `confinement` would accept.
std::string destination_forms(const std::filesystem::path& confinement);

}  // namespace detail
}  // namespace log
}  // namespace foundation

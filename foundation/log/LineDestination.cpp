#include "foundation/log/LineDestination.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <vector>

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/sink.h>

#include "foundation/log/detail/Destination.h"

namespace foundation {
namespace log {

namespace {

// The destinations alive, for reopen_line_destinations(). Never destroyed, so that destinations
// of static objects may withdraw whatever the order of static destruction.
struct registry {
  std::mutex mutex;                             // held while any of them reopens
  std::vector<line_destination*> destinations;  // guarded by mutex
};
registry& registered() {
  static registry* const instance = new registry;
  return *instance;
}

bool has_file(const std::string& text) {
  return text != "stdout" && text != "stderr" && text != "null" && text != "async:stdout" &&
         text != "async:stderr" && text != "async:null";
}

}  // namespace

struct line_destination::state {
  std::string text;
  std::shared_ptr<spdlog::sinks::sink> sink;
  bool file = false;
};

line_destination::line_destination(const std::string& text) : state_(new state) {
  state_->text = text;
  state_->sink = detail::open_destination(text);
  state_->sink->set_pattern("%v");  // nothing around the payload
  state_->file = has_file(text);
  std::lock_guard<std::mutex> lock(registered().mutex);
  registered().destinations.push_back(this);
}

line_destination::~line_destination() {
  {
    std::lock_guard<std::mutex> lock(registered().mutex);
    auto& all = registered().destinations;
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
  }
  try {
    detail::drain_destination(*state_->sink);
  } catch (...) {
  }
}

void line_destination::write(std::string_view line) {
  state_->sink->log(spdlog::details::log_msg(spdlog::source_loc{}, spdlog::string_view_t(),
                                             spdlog::level::info,
                                             spdlog::string_view_t(line.data(), line.size())));
}

void line_destination::flush() {
  state_->sink->flush();
}

void line_destination::reopen() {
  if (state_->file) {
    detail::reopen_destination(*state_->sink, state_->text);
  }
}

const std::string& line_destination::text() const noexcept {
  return state_->text;
}

std::string reopen_line_destinations() {
  std::string failure;
  std::lock_guard<std::mutex> lock(registered().mutex);
  for (line_destination* destination : registered().destinations) {
    try {
      destination->reopen();
    } catch (const std::exception& error) {
      if (failure.empty()) {
        failure = error.what();
      }
    }
  }
  return failure;
}

}  // namespace log
}  // namespace foundation

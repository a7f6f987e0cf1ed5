#include "foundation/log/detail/Destination.h"

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "foundation/log/Log.h"
#include "foundation/log/TestDestination.h"
#include "foundation/log/detail/Confinement.h"
#include "foundation/log/detail/Sinks.h"

namespace foundation {
namespace log {
namespace detail {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFilePrefix = "file:";
constexpr const char* kRotatingPrefix = "rotating:";
constexpr const char* kAsyncPrefix = "async:";
constexpr const char* kTestPrefix = "test:";
constexpr std::size_t kMaxRotatingBytes = std::size_t(1024) * 1024 * 1024;
constexpr std::size_t kMaxRotatingFiles = 1000;

// The functions behind "test:NAME" destinations. Never destroyed, like the process log.
struct TestDestinations {
  std::mutex mutex;
  std::map<std::string, std::function<void(std::string_view)>> writers;  // guarded by mutex
};

TestDestinations& testDestinations() {
  static TestDestinations* const destinations = new TestDestinations();
  return *destinations;
}

bool startsWith(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

// Appending to a FIFO or a device would block or misbehave; only regular files (or new ones) are logs.
void refuseSpecialFile(const std::string& text, const fs::path& path, const fs::file_status& status) {
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    throw std::invalid_argument("log destination " + inQuotes(text) + " is refused: " +
                                inQuotes(path.string()) + " exists and is not a regular file");
  }
}

}  // namespace

std::string destination_forms(const fs::path& confinement) {
  if (confinement.empty()) {
    return "use stderr, stdout, null, file:PATH or rotating:MAX_BYTES:FILES:PATH, or async: before one of "
           "them (e.g. file:/var/log/app.log)";
  }
  return "use stderr, stdout, null, file:PATH or rotating:MAX_BYTES:FILES:PATH with PATH inside " +
         inQuotes(confinement.string()) + ", or async: before one of them (e.g. file:app.log)";
}

file_target prepare_file(const std::string& text, const std::string& path_text, const fs::path& confinement) {
  if (path_text.empty()) {
    throw std::invalid_argument("log destination " + inQuotes(text) +
                                " names no file: " + destination_forms(confinement));
  }
  file_target target;
  std::error_code error;
  if (confinement.empty()) {
    target.path = path_text;
    const fs::path parent = target.path.parent_path().empty() ? fs::path(".") : target.path.parent_path();
    if (!fs::is_directory(parent, error)) {
      // spdlog would create the missing directories; a typo should not leave a tree behind.
      throw std::runtime_error("cannot open log file " + inQuotes(target.path.string()) + " for " +
                               inQuotes(text) + ": its directory " + inQuotes(parent.string()) +
                               " does not exist");
    }
    refuseSpecialFile(text, target.path, fs::status(target.path, error));
    return target;
  }
  // Confinement is checked before opening (so that nothing is created outside the directory)
  // and again on the opened file (so that a link swapped in meanwhile is caught).
  confined_file confined = confine_file(text, fs::path(path_text), confinement);
  target.path = std::move(confined.path);
  refuseSpecialFile(text, target.path, fs::symlink_status(target.path, error));
  target.handlers.after_open = [verify = std::move(confined.verify_opened)](
                                   const spdlog::filename_t&, std::FILE* file) { verify(file); };
  return target;
}

namespace {

std::atomic<std::uint64_t> rotationCount{0};

// Opens a file sink of spdlog's, turning its failure into ours.
template <typename Make>
std::unique_ptr<spdlog::sinks::sink> openFile(const std::string& text, const file_target& target, Make make) {
  try {
    return make(target);
  } catch (const spdlog::spdlog_ex& failure) {
    throw std::runtime_error("cannot open log file " + inQuotes(target.path.string()) + " for " +
                             inQuotes(text) + ": " + failure.what());
  }
}

// "10", "64K", "10M": a whole number of bytes, or of KiB or MiB.
std::size_t parseSize(const std::string& text, const std::string& word) {
  std::size_t digits = word.find_first_not_of("0123456789");
  const std::string number = word.substr(0, digits);
  const std::string unit = digits == std::string::npos ? "" : word.substr(digits);
  const std::size_t scale = unit.empty() ? 1 : unit == "K" ? 1024 : unit == "M" ? 1024 * 1024 : 0;
  const bool fits = !number.empty() && number.size() <= 10;
  const std::size_t size = fits ? std::stoull(number) * scale : 0;
  if (size == 0 || size > kMaxRotatingBytes) {
    throw std::invalid_argument("log destination " + inQuotes(text) + " is refused: MAX_BYTES " +
                                inQuotes(word) + " is not a size from 1 byte to 1024M (write bytes, or " +
                                "end the number in K or M, e.g. 10M)");
  }
  return size;
}

std::size_t parseFileCount(const std::string& text, const std::string& word) {
  const bool digits =
      !word.empty() && word.size() <= 4 && word.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::stoul(word) > kMaxRotatingFiles) {
    throw std::invalid_argument("log destination " + inQuotes(text) + " is refused: FILES " + inQuotes(word) +
                                " is not a number of old files from 0 to " +
                                std::to_string(kMaxRotatingFiles));
  }
  return std::stoul(word);
}

std::shared_ptr<spdlog::sinks::sink> openRotating(const std::string& text, const fs::path& confinement) {
  const std::string rest = text.substr(std::string(kRotatingPrefix).size());
  const auto first = rest.find(':');
  const auto second = first == std::string::npos ? first : rest.find(':', first + 1);
  if (second == std::string::npos) {
    throw std::invalid_argument(
        "log destination " + inQuotes(text) +
        " is refused: write rotating:MAX_BYTES:FILES:PATH, e.g. rotating:10M:5:app.log");
  }
  const std::size_t maxBytes = parseSize(text, rest.substr(0, first));
  const std::size_t files = parseFileCount(text, rest.substr(first + 1, second - first - 1));
  const std::string pathText = rest.substr(second + 1);
  prepare_file(text, pathText, confinement);  // refused texts fail here, before anything opens
  // Reopening checks the file afresh: the name may lead elsewhere by then.
  return std::make_shared<reopenable_file_sink>([=]() -> std::unique_ptr<spdlog::sinks::sink> {
    return openFile(text, prepare_file(text, pathText, confinement), [&](const file_target& target) {
      // spdlog's sink opens its file once when made and again after each rotation.
      spdlog::file_event_handlers handlers = target.handlers;
      handlers.after_open = [verify = target.handlers.after_open, opened = false](
                                const spdlog::filename_t& name, std::FILE* file) mutable {
        if (verify) {
          verify(name, file);
        }
        if (std::exchange(opened, true)) {
          rotationCount.fetch_add(1, std::memory_order_relaxed);
        }
      };
      return std::make_unique<spdlog::sinks::rotating_file_sink_st>(target.path.string(), maxBytes, files,
                                                                    false, handlers);
    });
  });
}

std::shared_ptr<spdlog::sinks::sink> openPlainFile(const std::string& text, const fs::path& confinement) {
  const std::string pathText = text.substr(std::string(kFilePrefix).size());
  prepare_file(text, pathText, confinement);
  return std::make_shared<reopenable_file_sink>([=]() -> std::unique_ptr<spdlog::sinks::sink> {
    return openFile(text, prepare_file(text, pathText, confinement), [](const file_target& target) {
      return std::make_unique<spdlog::sinks::basic_file_sink_st>(target.path.string(), false,
                                                                 target.handlers);
    });
  });
}

std::shared_ptr<spdlog::sinks::sink> openTestDestination(const std::string& text) {
  const std::string name = text.substr(std::string(kTestPrefix).size());
  std::lock_guard<std::mutex> lock(testDestinations().mutex);
  const auto found = testDestinations().writers.find(name);
  if (found == testDestinations().writers.end()) {
    throw std::invalid_argument("unknown log destination " + inQuotes(text) + ": no test destination " +
                                inQuotes(name) + " was defined");
  }
  return std::make_shared<function_sink>(found->second);
}

}  // namespace

std::shared_ptr<spdlog::sinks::sink> open_destination(const std::string& text, const fs::path& confinement) {
  if (text == "stderr") {
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
  }
  if (text == "stdout") {
    return std::make_shared<spdlog::sinks::stdout_sink_mt>();
  }
  if (text == "null") {
    return std::make_shared<spdlog::sinks::null_sink_mt>();
  }
  if (startsWith(text, kFilePrefix)) {
    return openPlainFile(text, confinement);
  }
  if (startsWith(text, kRotatingPrefix)) {
    return openRotating(text, confinement);
  }
  if (startsWith(text, kAsyncPrefix)) {
    const std::string inner = text.substr(std::string(kAsyncPrefix).size());
    if (inner.empty() || startsWith(inner, kAsyncPrefix)) {
      throw std::invalid_argument(
          "log destination " + inQuotes(text) +
          " is refused: async: goes before one destination that is not async: itself; " +
          destination_forms(confinement));
    }
    return std::make_shared<async_sink>(open_destination(inner, confinement));
  }
  if (startsWith(text, kTestPrefix)) {
    return openTestDestination(text);
  }
  throw std::invalid_argument("unknown log destination " + inQuotes(text) + ": " +
                              destination_forms(confinement));
}

void reopen_destination(spdlog::sinks::sink& destination, const std::string& text) {
  spdlog::sinks::sink* sink = &destination;
  if (auto* queue = dynamic_cast<async_sink*>(sink)) {
    sink = queue->target().get();
  }
  auto* file = dynamic_cast<reopenable_file_sink*>(sink);
  if (file == nullptr) {
    throw std::invalid_argument("the log destination " + inQuotes(text) +
                                " has no file to reopen; reopening applies to file:, rotating: and async: "
                                "before one of them");
  }
  file->reopen();
}

std::uint64_t rotations() {
  return rotationCount.load(std::memory_order_relaxed);
}

queue_counts queue_counts_of(spdlog::sinks::sink& destination) {
  auto* queue = dynamic_cast<async_sink*>(&destination);
  return queue == nullptr ? queue_counts{} : queue_counts{queue->dropped(), queue->queued()};
}

std::shared_ptr<spdlog::sinks::sink> behind_queue(spdlog::sinks::sink& destination) {
  auto* queue = dynamic_cast<async_sink*>(&destination);
  return queue == nullptr ? nullptr : queue->target();
}

std::size_t drain_destination(spdlog::sinks::sink& destination) {
  auto* queue = dynamic_cast<async_sink*>(&destination);
  if (queue == nullptr) {
    return 0;
  }
  queue->drain();
  return queue->dropped();
}

bool reserve_audit(spdlog::sinks::sink& destination) {
  auto* queue = dynamic_cast<async_sink*>(&destination);
  return queue == nullptr || queue->reserve_audit();
}

void write_audit(spdlog::sinks::sink& destination, const spdlog::details::log_msg& msg) {
  if (auto* queue = dynamic_cast<async_sink*>(&destination)) {
    queue->write_audit(msg);
    return;
  }
  destination.log(msg);
  destination.flush();
}

void release_audit(spdlog::sinks::sink& destination) {
  if (auto* queue = dynamic_cast<async_sink*>(&destination)) {
    queue->release_audit();
  }
}

std::shared_ptr<spdlog::sinks::sink> open_destination(const std::string& text) {
  return open_destination(text, fs::path(file_destination_confinement()));
}

}  // namespace detail
}  // namespace log
}  // namespace foundation

namespace foundation {
namespace log {
namespace testing {

void define_test_destination(const std::string& name, std::function<void(std::string_view record)> write) {
  auto& destinations = detail::testDestinations();
  std::lock_guard<std::mutex> lock(destinations.mutex);
  destinations.writers[name] = std::move(write);
}

}  // namespace testing
}  // namespace log
}  // namespace foundation

#include "services/AccessLogServiceProvider.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <typeinfo>
#include <utility>

#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/get.hpp>
#include <boost/variant/static_visitor.hpp>

#include "foundation/core/detail/TickClock.h"
#include "foundation/log/LineDestination.h"
#include "foundation/log/Log.h"
#include "framework/CallbackSubscriber.h"
#include "services/detail/AnswerObserver.h"
#include "services/detail/LineFormat.h"
#include "services/detail/LineWriter.h"
#include "services/detail/MessageTypeName.h"

namespace connector {
namespace common_services {

namespace {

using configuration::ConfigValue;
using detail::Outcome;
using foundation::core::detail::tick_clock;
using MessagePtr = std::unique_ptr<Message>;
using detail::append;
using detail::appendJsonString;
using detail::appendNumber;
using detail::appendToken;
using detail::appendUtcTime;
using detail::Line;
using detail::LineWriter;

constexpr const char* kEnabledKeySuffix = ".enabled";
constexpr const char* kErrorsOnlyKeySuffix = ".errorsOnly";
constexpr const char* kSlowerThanKeySuffix = ".slowerThanUs";
constexpr const char* kSampleEveryKeySuffix = ".sampleEvery";
constexpr const char* kExcludeKeySuffix = ".exclude";
constexpr const char* kFormatKeySuffix = ".format";
constexpr const char* kDestinationKeySuffix = ".destination";
constexpr const char* kDefaultLabel = "default";
constexpr const char* kConfigChannel = "connector.config";

constexpr const char* kTextFormat = "text";
constexpr const char* kJsonFormat = "json";
constexpr const char* kDefaultDestination = "stdout";
constexpr const char* kAsyncPrefix = "async:";

// What each key accepts, as refusals say it.
constexpr const char* kAcceptsBool = "a bool (true or false)";
constexpr const char* kAcceptsSlowerThan = "an int of at least 0 (microseconds; 0 leaves latency out)";
constexpr const char* kAcceptsSampleEvery = "an int of at least 1";
constexpr const char* kAcceptsExclude = "a string of comma-separated type-name prefixes";
constexpr const char* kAcceptsFormat = "the string text or json";
constexpr const char* kAcceptsDestination =
    "a string naming a destination such as stdout, null or file:access.log";

// The tokens of the lines.
constexpr std::string_view kOk = "ok";
constexpr std::string_view kFailed = "failed";

// A configuration value as refusals show it: the value and its type.
struct ShownValue : boost::static_visitor<std::string> {
  std::string operator()(bool value) const { return std::string(value ? "true" : "false") + " (bool)"; }
  std::string operator()(int value) const { return std::to_string(value) + " (int)"; }
  std::string operator()(unsigned value) const { return std::to_string(value) + " (unsigned int)"; }
  std::string operator()(double value) const {
    std::ostringstream text;
    text << value << " (double)";
    return text.str();
  }
  std::string operator()(const std::string& value) const { return "\"" + value + "\" (string)"; }
  std::string operator()(const std::u16string&) const { return "a UTF-16 string"; }
  template <typename T>
  std::string operator()(const std::vector<T>& value) const {
    return "a list of " + std::to_string(value.size()) + " values";
  }
};

// Refuses a value: the setting keeps `current`. The warn record is for whoever reads the process
// log; the exception tells the configuration that delivered the value.
[[noreturn]] void refuse(const std::string& key, const ConfigValue& value, const std::string& accepted,
                         const std::string& current) {
  const std::string text = key + " refused " + boost::apply_visitor(ShownValue(), value) + ": it takes " +
                           accepted + "; the setting stays " + current;
  foundation::log::channel(kConfigChannel).warn(text);
  throw std::invalid_argument(text);
}

// The provider's writer is already the queue that "async:" would add, so "async:DEST" opens DEST:
// a second queue would drop lines uncounted and write its own bare overflow line.
std::shared_ptr<foundation::log::line_destination> openDestination(const std::string& text) {
  const std::string_view async = kAsyncPrefix;
  const bool queued =
      text.compare(0, async.size(), async) == 0 && text.compare(async.size(), async.size(), async) != 0;
  return std::make_shared<foundation::log::line_destination>(queued ? text.substr(async.size()) : text);
}

std::vector<std::string> splitPrefixes(const std::string& text) {
  std::vector<std::string> prefixes;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    std::size_t end = text.find(',', begin);
    if (end == std::string::npos) {
      end = text.size();
    }
    std::string_view item(text.data() + begin, end - begin);
    while (!item.empty() && item.front() == ' ') {
      item.remove_prefix(1);
    }
    while (!item.empty() && item.back() == ' ') {
      item.remove_suffix(1);
    }
    if (!item.empty()) {
      prefixes.emplace_back(item);
    }
    begin = end + 1;
  }
  return prefixes;
}

// What lines look like and where they go: replaced whole when a setting changes, so that a line
// is written with one consistent set.
struct Output : detail::LineTarget {
  std::string destination = kDefaultDestination;
  bool json = false;
  std::string exclude;
  std::vector<std::string> excludedPrefixes;

  bool excludes(std::string_view type) const {
    for (const std::string& prefix : excludedPrefixes) {
      if (type.substr(0, prefix.size()) == prefix) {
        return true;
      }
    }
    return false;
  }
};

}  // namespace

struct AccessLogServiceProvider::Core {
  explicit Core(const std::string& providerName) : name(providerName) {}

  const std::string name;  // the provider's, written on every line
  // Read on every request, without a lock.
  std::atomic<bool> enabled{true};
  std::atomic<bool> errorsOnly{false};
  std::atomic<int> slowerThanUs{0};
  std::atomic<int> sampleEvery{1};
  std::atomic<std::uint64_t> nextNumber{0};
  std::atomic<std::uint64_t> selected{0};
  std::atomic<std::uint64_t> notSelected{0};  // numbered requests that completed unselected
  std::atomic<std::uint64_t> dropped{0};
  std::atomic<std::uint64_t> failedToFormat{0};
  const std::shared_ptr<LineWriter> writer = LineWriter::start();

  ~Core() {
    output.reset();  // handed to the writer before it is told to stop
    writer->stop();
  }

  // Held to read or replace `output`, never while a line is written or a file is opened.
  mutable std::mutex mutex;
  std::shared_ptr<const Output> output;  // guarded by mutex

  std::shared_ptr<const Output> currentOutput() const {
    std::lock_guard<std::mutex> lock(mutex);
    return output;
  }

  // Replaces `output` by a copy that `change` has edited. The writer flushes and lets go of the
  // old one after the lines queued for it, so that neither this lock nor a request thread ever
  // waits for a destination.
  template <typename Change>
  void changeOutput(Change&& change) {
    std::shared_ptr<const Output> previous;
    {
      std::lock_guard<std::mutex> lock(mutex);
      Output next = *output;
      change(next);
      previous = std::exchange(output, LineWriter::owned(writer, std::move(next)));
    }
    writer->retire(std::move(previous));
  }

  // Called once per numbered request, when it has completed.
  void finish(std::uint64_t number, const std::type_info& type, std::string_view address,
              tick_clock::time_point start, const Outcome& outcome) noexcept {
    try {
      if (!enabled.load(std::memory_order_relaxed)) {
        notSelected.fetch_add(1, std::memory_order_relaxed);
        return;
      }
      // An ok request that no latency threshold watches and no sample takes needs no second
      // clock reading: that is most requests of an errors-only log.
      const int slowUs = slowerThanUs.load(std::memory_order_relaxed);
      const bool sampled =
          !errorsOnly.load(std::memory_order_relaxed) &&
          number % static_cast<std::uint64_t>(sampleEvery.load(std::memory_order_relaxed)) == 0;
      if (outcome.ok() && slowUs == 0 && !sampled) {
        notSelected.fetch_add(1, std::memory_order_relaxed);
        return;
      }
      const tick_clock::duration elapsed = std::max(tick_clock::now() - start, tick_clock::duration::zero());
      const std::int64_t elapsedUs = std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
      if (outcome.ok() && !sampled && !(slowUs > 0 && elapsedUs >= slowUs)) {
        notSelected.fetch_add(1, std::memory_order_relaxed);
        return;
      }
      const std::shared_ptr<const Output> out = currentOutput();
      const std::string_view name = detail::messageTypeName(type);
      if (outcome.ok() && out->excludes(name)) {
        notSelected.fetch_add(1, std::memory_order_relaxed);
        return;
      }
      selected.fetch_add(1, std::memory_order_relaxed);
      const std::chrono::system_clock::time_point now = std::chrono::system_clock::now();
      const auto startTime = now - std::chrono::duration_cast<std::chrono::system_clock::duration>(elapsed);
      Line line;
      if (out->json) {
        append(line, "{\"number\":");
        appendNumber(line, number);
        append(line, ",\"provider\":");
        appendJsonString(line, this->name);
        append(line, ",\"address\":");
        appendJsonString(line, address);
        append(line, ",\"type\":");
        appendJsonString(line, name);
        append(line, ",\"outcome\":");
        appendJsonString(line, outcome.ok() ? kOk : kFailed);
        if (!outcome.ok()) {
          append(line, ",\"exception\":");
          appendJsonString(line, outcome.exceptionType);
          append(line, ",\"what\":");
          appendJsonString(line, outcome.what);
        }
        append(line, ",\"elapsed_us\":");
        appendNumber(line, static_cast<std::uint64_t>(elapsedUs));
        append(line, ",\"start\":\"");
        appendUtcTime(line, startTime);
        append(line, "\"}");
      } else {
        appendNumber(line, number);
        line.push_back(' ');
        appendToken(line, this->name);
        line.push_back(' ');
        appendToken(line, address);
        line.push_back(' ');
        appendToken(line, name);
        line.push_back(' ');
        if (outcome.ok()) {
          append(line, kOk);
        } else {
          appendToken(line, outcome.exceptionType);
          line.push_back(' ');
          appendJsonString(line, outcome.what);
        }
        append(line, " elapsed_us=");
        appendNumber(line, static_cast<std::uint64_t>(elapsedUs));
        append(line, " start=");
        appendUtcTime(line, startTime);
      }
      if (!writer->push(out, std::string_view(line.data(), line.size()))) {
        dropped.fetch_add(1, std::memory_order_relaxed);
      }
    } catch (...) {
      failedToFormat.fetch_add(1, std::memory_order_relaxed);
    }
  }
};

AccessLogServiceProvider::AccessLogServiceProvider(
    std::shared_ptr<configuration::Configuration> configuration, const std::string& name)
    : core_(std::make_shared<Core>(name)) {
  {
    Output output;
    output.sink = openDestination(kDefaultDestination);
    core_->output = LineWriter::owned(core_->writer, std::move(output));
  }
  if (!configuration) {
    return;
  }
  configuration->set(name + kEnabledKeySuffix, ConfigValue(true), kDefaultLabel);
  configuration->set(name + kErrorsOnlyKeySuffix, ConfigValue(false), kDefaultLabel);
  configuration->set(name + kSlowerThanKeySuffix, ConfigValue(0), kDefaultLabel);
  configuration->set(name + kSampleEveryKeySuffix, ConfigValue(1), kDefaultLabel);
  configuration->set(name + kExcludeKeySuffix, ConfigValue(std::string()), kDefaultLabel);
  configuration->set(name + kFormatKeySuffix, ConfigValue(std::string(kTextFormat)), kDefaultLabel);
  configuration->set(name + kDestinationKeySuffix, ConfigValue(std::string(kDefaultDestination)),
                     kDefaultLabel);

  // The callbacks hold the core, not the provider: it outlives them either way, and the
  // destructor's cancel() waits for any that is running.
  Core* const core = core_.get();
  const auto follow = [&](const char* suffix, auto apply) {
    const std::string key = name + suffix;
    std::function<void(ConfigValue &&)> callback = [core, key, apply](ConfigValue&& value) {
      apply(*core, key, value);
    };
    cancellers_.push_back(reactive_streams::makeCanceller(
        reactive_streams::subscribeCallback(configuration->observe(key), std::move(callback))));
  };
  const auto followBool = [&](const char* suffix, std::atomic<bool> Core::*field) {
    follow(suffix, [field](Core& c, const std::string& key, const ConfigValue& value) {
      const bool* flag = boost::get<bool>(&value);
      if (flag == nullptr) {
        refuse(key, value, kAcceptsBool, (c.*field).load() ? "true" : "false");
      }
      (c.*field).store(*flag);
    });
  };
  const auto followInt = [&](const char* suffix, std::atomic<int> Core::*field, int least,
                             const char* accepts) {
    follow(suffix, [field, least, accepts](Core& c, const std::string& key, const ConfigValue& value) {
      const int* number = boost::get<int>(&value);
      if (number == nullptr || *number < least) {
        refuse(key, value, accepts, std::to_string((c.*field).load()));
      }
      (c.*field).store(*number);
    });
  };
  const auto followString = [&](const char* suffix, const char* accepts, auto apply) {
    follow(suffix, [accepts, apply](Core& c, const std::string& key, const ConfigValue& value) {
      const std::string* text = boost::get<std::string>(&value);
      if (text == nullptr) {
        refuse(key, value, accepts, "\"" + apply(c, nullptr) + "\"");
      }
      apply(c, text);
    });
  };

  followBool(kEnabledKeySuffix, &Core::enabled);
  followBool(kErrorsOnlyKeySuffix, &Core::errorsOnly);
  followInt(kSlowerThanKeySuffix, &Core::slowerThanUs, 0, kAcceptsSlowerThan);
  followInt(kSampleEveryKeySuffix, &Core::sampleEvery, 1, kAcceptsSampleEvery);
  // Each string callback is called with nullptr to read the current value (for a refusal), or
  // with the new text to apply it; it answers the value in force afterwards.
  followString(kExcludeKeySuffix, kAcceptsExclude, [](Core& c, const std::string* text) {
    if (text != nullptr) {
      std::vector<std::string> prefixes = splitPrefixes(*text);
      c.changeOutput([&](Output& out) {
        out.exclude = *text;
        out.excludedPrefixes = std::move(prefixes);
      });
    }
    return c.currentOutput()->exclude;
  });
  const std::string formatKey = name + kFormatKeySuffix;
  followString(kFormatKeySuffix, kAcceptsFormat, [formatKey](Core& c, const std::string* text) {
    if (text != nullptr) {
      if (*text != kTextFormat && *text != kJsonFormat) {
        refuse(formatKey, *text, kAcceptsFormat, c.currentOutput()->json ? kJsonFormat : kTextFormat);
      }
      c.changeOutput([&](Output& out) { out.json = *text == kJsonFormat; });
    }
    return std::string(c.currentOutput()->json ? kJsonFormat : kTextFormat);
  });
  const std::string destinationKey = name + kDestinationKeySuffix;
  followString(
      kDestinationKeySuffix, kAcceptsDestination, [destinationKey](Core& c, const std::string* text) {
        if (text != nullptr) {
          std::shared_ptr<foundation::log::line_destination> sink;
          try {
            sink = openDestination(*text);  // outside the lock: it may touch the file system
          } catch (const std::exception& error) {
            refuse(destinationKey, *text, std::string(kAcceptsDestination) + " (" + error.what() + ")",
                   "\"" + c.currentOutput()->destination + "\"");
          }
          c.changeOutput([&](Output& out) {
            out.destination = *text;
            out.sink = std::move(sink);
            out.flushAfterLines = *text != "stdout" && *text != "stderr" && *text != "null";
          });
        }
        return c.currentOutput()->destination;
      });
}

AccessLogServiceProvider::~AccessLogServiceProvider() {
  for (const std::shared_ptr<reactive_streams::Canceller>& entry : cancellers_) {
    const std::shared_ptr<reactive_streams::Canceller> canceller = entry;
    canceller->cancel();
  }
}

std::uint64_t AccessLogServiceProvider::failedWrites() const noexcept {
  return core_->failedToFormat.load() + core_->writer->failed.load();
}

AccessLogServiceProvider::LineCounts AccessLogServiceProvider::lineCounts() const noexcept {
  LineCounts counts;
  counts.selected = core_->selected.load();
  counts.selectedOut = core_->notSelected.load();
  counts.written = core_->writer->written.load();
  counts.dropped = core_->dropped.load();
  counts.failed = failedWrites();
  return counts;
}

void AccessLogServiceProvider::flush() const {
  core_->writer->flush();
}

Future<MessagePtr> AccessLogServiceProvider::deliver(MessagePtr&& message, Address&& address,
                                                     std::shared_ptr<Context>&& context) {
  if (!message) {
    throw std::bad_typeid();
  }
  Core* const core = core_.get();
  // A disabled log numbers nothing and reads no clock.
  const bool observed = core->enabled.load(std::memory_order_relaxed);
  const Message& object = *message;
  const std::type_info& type = typeid(object);  // the message itself may be gone by completion
  const std::uint64_t number = observed ? core->nextNumber.fetch_add(1, std::memory_order_relaxed) : 0;
  const tick_clock::time_point start = observed ? tick_clock::now() : tick_clock::time_point();
  std::string addressName = observed ? address.name() : std::string();  // the address moves on
  // One named future, returned at the only return below, so that it is built in the caller's
  // place and an answer that is already Resolved goes back without a single move.
  Future<MessagePtr> answer = [&] {
    try {
      return context->forward(std::move(message), std::move(address));
    } catch (...) {
      if (observed) {
        core->finish(number, type, addressName, start, detail::currentFailure());
      }
      throw;
    }
  }();
  if (observed) {
    detail::observeAnswer(
        answer,
        [core, number, &type, addressName = std::move(addressName), start](const Outcome& outcome) {
          core->finish(number, type, addressName, start, outcome);
        },
        [this] { return core_; });
  }
  return answer;
}

}  // namespace common_services
}  // namespace connector

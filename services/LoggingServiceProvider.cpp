#include "services/LoggingServiceProvider.h"

#include <algorithm>
#include <array>
#include <deque>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>
#include <typeinfo>
#include <utility>

#include <boost/container/small_vector.hpp>
#include <boost/variant/get.hpp>

#include "foundation/core/diag/StreamNumberFormat.h"
#include "framework/CallbackSubscriber.h"
#include "services/detail/MessageTypeName.h"

namespace connector {
namespace common_services {

namespace {

using configuration::ConfigValue;
using foundation::core::diag::StreamNumberFormat;

constexpr const char* kFilterKeySuffix = ".filter";
constexpr const char* kPrefixKeySuffix = ".prefix";
constexpr const char* kEnabledKeySuffix = ".enabled";
constexpr const char* kDefaultLabel = "default";
constexpr const char* kNullContext =
    "LoggingServiceProvider::deliver needs a context to forward the request through; got a null "
    "std::shared_ptr<connector::Context>";

// The tokens of the lines, between the prefix, the numbers and the type names.
constexpr std::string_view kRequestOpen = ": Request (";
constexpr std::string_view kResponseOpen = ": Response (";
constexpr std::string_view kNumberClose = "): ";
constexpr std::string_view kExceptionClose = "): Exception!";
constexpr std::string_view kElapsedTime = ": elapsed time ";
constexpr std::string_view kMilliseconds = " ms";

// A line is built in one of these; lines of usual length need no allocation.
using LineText = boost::container::small_vector<char, 256>;
using PrefixText = boost::container::small_vector<char, 64>;

void append(LineText& text, std::string_view part) {
  text.insert(text.end(), part.begin(), part.end());
}

// A text that the configuration callbacks replace while deliver() reads it, with no lock on the
// reading side. It is a sequence lock: a writer makes the sequence odd, stores the bytes and
// makes it even again; a reader reads the sequence, the bytes and the sequence again, and tries
// again if a write came in between. The bytes are atomics, so such an overlapping read is no
// data race; the writer stores them with release and the reader loads them with acquire (plain
// moves on x86), so a reader that saw any byte of a write also sees that write's odd sequence. The storage
// only grows, and an outgrown block is kept until the text is destroyed because a reader may still be reading
// it: at most about twice the longest text is held.
class SharedText {
 public:
  SharedText() : blocks_(1) { current_.store(&blocks_.back(), std::memory_order_release); }
  SharedText(const SharedText&) = delete;
  SharedText& operator=(const SharedText&) = delete;

  // Any thread. Writers take turns; a failed allocation leaves the text as it was.
  void assign(std::string_view text) {
    std::lock_guard<std::mutex> lock(writerMutex_);
    const Block* block = current_.load(std::memory_order_relaxed);
    if (text.size() > block->capacity) {
      blocks_.emplace_back(std::max(text.size(), 2 * block->capacity));
      block = &blocks_.back();
    }
    const std::uint64_t sequence = sequence_.load(std::memory_order_relaxed);
    sequence_.store(sequence + 1, std::memory_order_relaxed);
    current_.store(block, std::memory_order_release);
    for (std::size_t i = 0; i < text.size(); ++i) {
      block->bytes[i].store(text[i], std::memory_order_release);
    }
    size_.store(text.size(), std::memory_order_release);
    sequence_.store(sequence + 2, std::memory_order_release);
  }

  // Any thread: whether `name` begins with the text (every text begins with the empty one).
  bool isPrefixOf(std::string_view name) const {
    return read([&](const Block& block, std::size_t size) {
      if (size > name.size()) {
        return false;
      }
      for (std::size_t i = 0; i < size; ++i) {
        if (block.bytes[i].load(std::memory_order_acquire) != name[i]) {
          return false;
        }
      }
      return true;
    });
  }

  // Any thread: a copy of the text.
  void copyTo(PrefixText& out) const {
    read([&](const Block& block, std::size_t size) {
      out.resize(size);
      for (std::size_t i = 0; i < size; ++i) {
        out[i] = block.bytes[i].load(std::memory_order_acquire);
      }
      return true;
    });
  }

 private:
  struct Block {
    explicit Block(std::size_t n = 0) : capacity(n), bytes(new std::atomic<char>[n]()) {}
    std::size_t capacity;
    std::unique_ptr<std::atomic<char>[]> bytes;
  };

  template <typename Reader>
  bool read(Reader&& reader) const {
    for (;;) {
      const std::uint64_t before = sequence_.load(std::memory_order_acquire);
      if (before % 2 == 0) {
        const Block* block = current_.load(std::memory_order_acquire);
        // A size from a later write may not fit the block read; the sequence check below then
        // discards the result anyway.
        const std::size_t size = std::min(size_.load(std::memory_order_acquire), block->capacity);
        const bool result = reader(*block, size);
        if (sequence_.load(std::memory_order_relaxed) == before) {
          return result;
        }
      }
      std::this_thread::yield();
    }
  }

  std::mutex writerMutex_;
  std::deque<Block> blocks_;  // guarded by writerMutex_; the last one is current
  std::atomic<const Block*> current_{nullptr};
  std::atomic<std::size_t> size_{0};
  std::atomic<std::uint64_t> sequence_{0};  // odd while a write is under way
};

double toMilliseconds(std::chrono::system_clock::duration duration) {
  const std::int64_t nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
  return static_cast<double>(nanoseconds) / 1000000.0;
}

}  // namespace

struct LoggingServiceProvider::Settings {
  SharedText filter;
  SharedText prefix;
  std::atomic<bool> enabled{true};
};

// The values of one line, gathered before it is written.
struct LoggingServiceProvider::Line {
  enum class Kind {
    Request,        // prefix, timestamp, ": Request (", number, "): ", type name
    Response,       // prefix, timestamp, ": Response (", number, "): ", type name, elapsed time
    ResponseStart,  // a response line cut short after "): ", because the response had no type
    Exception,      // prefix, timestamp, ": Response (", number, "): Exception!", elapsed time
  };

  Kind kind = Kind::Request;
  PrefixText prefix;
  double timestamp = 0;
  unsigned long number = 0;
  std::string_view typeName;
  double elapsed = 0;

  bool endsLine() const { return kind != Kind::ResponseStart; }

  // Sends the tokens to `out`: the stream itself, or a LineBuilder.
  template <typename Out>
  void emit(Out& out) const {
    out << std::string_view(prefix.data(), prefix.size()) << timestamp
        << (kind == Kind::Request ? kRequestOpen : kResponseOpen) << number;
    if (kind == Kind::Exception) {
      out << kExceptionClose;
    } else {
      out << kNumberClose;
    }
    if (kind == Kind::Request || kind == Kind::Response) {
      out << typeName;
    }
    if (kind == Kind::Response || kind == Kind::Exception) {
      out << kElapsedTime << elapsed << kMilliseconds;
    }
  }
};

namespace {

// Builds lines off to the side, numbers formatted as the stream would format them.
struct LineBuilder {
  const StreamNumberFormat& format;
  LineText& text;

  LineBuilder& operator<<(std::string_view part) {
    append(text, part);
    return *this;
  }
  template <typename Number>
  LineBuilder& operator<<(Number value) {
    std::array<char, StreamNumberFormat::kMaxText> digits;
    append(text, std::string_view(digits.data(), format.write(digits.data(), value) - digits.data()));
    return *this;
  }
};

}  // namespace

LoggingServiceProvider::LoggingServiceProvider(std::shared_ptr<configuration::Configuration> configuration,
                                               const std::string& name, std::ostream& stream)
    : stream(stream), startTime(std::chrono::system_clock::now()), settings(std::make_unique<Settings>()) {
  if (!configuration) {
    return;
  }
  configuration->set(name + kFilterKeySuffix, ConfigValue(std::string()), kDefaultLabel);
  configuration->set(name + kPrefixKeySuffix, ConfigValue(std::string()), kDefaultLabel);
  configuration->set(name + kEnabledKeySuffix, ConfigValue(settings->enabled.load()), kDefaultLabel);

  using Callback = std::function<void(ConfigValue &&)>;
  const auto follow = [&](const char* suffix, const Callback& callback) {
    std::shared_ptr<reactive_streams::Publisher<ConfigValue>> publisher =
        configuration->observe(name + suffix);
    cancellers.push_back(
        reactive_streams::makeCanceller(reactive_streams::subscribeCallback(publisher, callback)));
  };
  // boost::get throws boost::bad_get for any other alternative, before the setting is touched.
  follow(kFilterKeySuffix,
         [this](ConfigValue&& value) { settings->filter.assign(boost::get<std::string>(value)); });
  follow(kPrefixKeySuffix,
         [this](ConfigValue&& value) { settings->prefix.assign(boost::get<std::string>(value)); });
  follow(kEnabledKeySuffix,
         [this](ConfigValue&& value) { settings->enabled.store(boost::get<bool>(value)); });
}

LoggingServiceProvider::~LoggingServiceProvider() {
  // Each cancel() returns only once no callback of its subscriber is running on another thread,
  // so the settings may go right after.
  for (const std::shared_ptr<reactive_streams::Canceller>& entry : cancellers) {
    const std::shared_ptr<reactive_streams::Canceller> canceller = entry;
    canceller->cancel();
  }
}

std::string_view LoggingServiceProvider::messageTypeName(const std::unique_ptr<Message>& message) {
  if (!message) {
    throw std::bad_typeid();
  }
  const Message& object = *message;
  return detail::messageTypeName(typeid(object));
}

double LoggingServiceProvider::millisecondsSinceStart(std::chrono::system_clock::time_point now) const {
  return toMilliseconds(now - startTime);
}

void LoggingServiceProvider::write(const Line* lines, std::size_t count) {
  const auto writeDirectly = [&] {
    for (std::size_t i = 0; i < count; ++i) {
      lines[i].emit(stream);
      if (lines[i].endsLine()) {
        stream << std::endl;
      }
    }
  };

  const std::optional<StreamNumberFormat> format = StreamNumberFormat::of(stream);
  if (!format) {
    std::lock_guard<std::mutex> lock(streamMutex);
    writeDirectly();
    return;
  }
  LineText text;
  LineBuilder builder{*format, text};
  bool flush = false;
  for (std::size_t i = 0; i < count; ++i) {
    lines[i].emit(builder);
    if (lines[i].endsLine()) {
      text.push_back(stream.widen('\n'));
      flush = true;
    }
  }
  std::lock_guard<std::mutex> lock(streamMutex);
  if (!format->matches(stream)) {
    writeDirectly();
    return;
  }
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (flush) {
    stream.flush();
  }
}

Future<std::unique_ptr<Message>> LoggingServiceProvider::deliver(std::unique_ptr<Message>&& message,
                                                                 Address&& address,
                                                                 std::shared_ptr<Context>&& context) {
  const std::string_view requestType = messageTypeName(message);
  if (!context) {
    throw std::invalid_argument(kNullContext);
  }
  if (!settings->enabled.load() || !settings->filter.isPrefixOf(requestType)) {
    return context->forward(std::move(message), std::move(address));
  }

  const unsigned long number = requestCount.fetch_add(1);
  const std::chrono::system_clock::time_point requestTime = std::chrono::system_clock::now();
  const auto begin = [&](Line& line, Line::Kind kind, std::chrono::system_clock::time_point now) {
    line.kind = kind;
    settings->prefix.copyTo(line.prefix);
    line.timestamp = millisecondsSinceStart(now);
    line.number = number;
    line.elapsed = toMilliseconds(now - requestTime);
  };

  Line request;
  begin(request, Line::Kind::Request, requestTime);
  request.typeName = requestType;
  write(&request, 1);

  // lines[0] is the response line, lines[1] the exception line. A response line cut short by a
  // response without a type goes out together with the exception line that follows it.
  std::array<Line, 2> lines;
  bool responseCutShort = false;
  try {
    // The context's future goes at the end of this statement, before the clock is read again.
    std::unique_ptr<Message> response = context->forward(std::move(message), std::move(address)).get();
    begin(lines[0], Line::Kind::ResponseStart, std::chrono::system_clock::now());
    responseCutShort = true;
    lines[0].typeName = messageTypeName(response);
    lines[0].kind = Line::Kind::Response;
    responseCutShort = false;
    write(&lines[0], 1);
    return makeResolvedFuture(std::move(response));
  } catch (...) {
    begin(lines[1], Line::Kind::Exception, std::chrono::system_clock::now());
    if (responseCutShort) {
      write(&lines[0], 2);
    } else {
      write(&lines[1], 1);
    }
    return makeRejectedFuture<std::unique_ptr<Message>>(std::current_exception());
  }
}

}  // namespace common_services
}  // namespace connector

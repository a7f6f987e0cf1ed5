// Sends random configuration values, of every alternative, to the keys of a logging service
// provider, interleaved with deliveries, and checks the provider against a model of its three
// settings and of the lines it writes.
//
// A value is taken only by its key's own alternative (bool for ".enabled", std::string for
// ".filter" and ".prefix"); any other is refused with boost::bad_get and changes nothing. A
// delivery is logged when enabled and the message's type name begins with the filter; then the
// stream holds exactly a request line and a response (or exception) line with the next request
// number, each starting with the prefix, and otherwise nothing. The stream's format is random
// too: the request number must come out exactly as the stream would write it, each time
// must be a number that the same format writes back unchanged, and a pending width pads the
// first token of the request line only.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "framework/Configuration.h"
#include "services/LoggingServiceProvider.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"

namespace fuzzmsg {
// Messages whose type names the filter is matched against.
class Alpha : public connector::Message {};
class AlphaBeta : public connector::Message {};
class Gamma : public connector::Message {};
}  // namespace fuzzmsg

namespace {

using connector::Future;
using connector::common_services::LoggingServiceProvider;
using connector::configuration::ConfigValue;
using connector::testing::FakeConfiguration;
using connector::testing::FakeContext;
using connector::testing::MessagePtr;

const char* const kTypeNames[] = {"fuzzmsg::Alpha", "fuzzmsg::AlphaBeta", "fuzzmsg::Gamma"};

[[noreturn]] void mismatch(const std::string& what) {
  std::fprintf(stderr, "MODEL MISMATCH: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

#define MODEL_CHECK(ok, what) \
  do {                        \
    if (!(ok)) {              \
      mismatch(what);         \
    }                         \
  } while (false)

MessagePtr makeMessage(int type) {
  switch (type) {
    case 0:
      return std::make_unique<fuzzmsg::Alpha>();
    case 1:
      return std::make_unique<fuzzmsg::AlphaBeta>();
    default:
      return std::make_unique<fuzzmsg::Gamma>();
  }
}

// What the context answers with.
enum class Answer { Echo, Reject, Cancel };

struct Settings {
  bool enabled = true;
  std::string filter;
  std::string prefix;
};

class Session {
 public:
  explicit Session(FuzzedDataProvider& input) : input_(input) { rebuild(); }

  void run() {
    for (int i = 0; i < 64 && input_.remaining_bytes() > 0; ++i) {
      switch (input_.ConsumeIntegralInRange<int>(0, 5)) {
        case 0:
        case 1:
          sendValue();
          break;
        case 2:
        case 3:
          deliver();
          break;
        case 4:
          changeFormat();
          break;
        default:
          rebuild();
          break;
      }
    }
  }

 private:
  void rebuild() {
    provider_.reset();
    configuration_ = std::make_shared<FakeConfiguration>();
    provider_ = std::make_shared<LoggingServiceProvider>(configuration_, "svc", stream_);
    model_ = Settings{};
    nextNumber_ = 0;
  }

  std::string text() {
    if (input_.ConsumeBool()) {
      return input_.ConsumeRandomLengthString(40);
    }
    // A piece of a type name, possibly with one byte more: the filters that select something.
    const std::string name = kTypeNames[input_.ConsumeIntegralInRange<int>(0, 2)];
    std::string piece = name.substr(0, input_.ConsumeIntegralInRange<std::size_t>(0, name.size()));
    if (input_.ConsumeBool()) {
      piece.push_back(static_cast<char>(input_.ConsumeIntegral<std::uint8_t>()));
    }
    return piece;
  }

  ConfigValue value(int alternative) {
    switch (alternative) {
      case 0:
        return input_.ConsumeBool();
      case 1:
        return input_.ConsumeIntegral<int>();
      case 2:
        return input_.ConsumeIntegral<unsigned int>();
      case 3:
        return input_.ConsumeFloatingPoint<double>();
      case 4: {
        const std::string bytes = text();
        return std::u16string(bytes.begin(), bytes.end());
      }
      case 5:
        return text();
      case 6:
        return std::vector<bool>(input_.ConsumeIntegralInRange<int>(0, 3), input_.ConsumeBool());
      case 7:
        return std::vector<int>(input_.ConsumeIntegralInRange<int>(0, 3), input_.ConsumeIntegral<int>());
      case 8:
        return std::vector<unsigned int>(input_.ConsumeIntegralInRange<int>(0, 3), 1u);
      case 9:
        return std::vector<double>(input_.ConsumeIntegralInRange<int>(0, 3), 0.5);
      case 10:
        return std::vector<std::string>(input_.ConsumeIntegralInRange<int>(0, 3), text());
      default: {
        const std::string bytes = text();
        return std::vector<std::u16string>(input_.ConsumeIntegralInRange<int>(0, 3),
                                           std::u16string(bytes.begin(), bytes.end()));
      }
    }
  }

  void sendValue() {
    static const char* const kKeys[] = {"svc.enabled", "svc.filter", "svc.prefix", "svc.other", "svc"};
    const int key = input_.ConsumeIntegralInRange<int>(0, 4);
    const int alternative = input_.ConsumeIntegralInRange<int>(0, 11);
    const ConfigValue sent = value(alternative);
    bool accepted = false;
    if (key == 0 && alternative == 0) {
      model_.enabled = boost::get<bool>(sent);
      accepted = true;
    } else if ((key == 1 || key == 2) && alternative == 5) {
      (key == 1 ? model_.filter : model_.prefix) = boost::get<std::string>(sent);
      accepted = true;
    }
    const bool subscribed = key <= 2;
    bool refused = false;
    try {
      configuration_->send(kKeys[key], sent);
    } catch (const boost::bad_get&) {
      refused = true;
    }
    MODEL_CHECK(refused == (subscribed && !accepted),
                std::string("a value of alternative ") + std::to_string(alternative) + " sent to " +
                    kKeys[key] + (refused ? " was refused" : " was taken"));
    MODEL_CHECK(stream_.str().empty(), "a configuration value made the provider write");
  }

  void changeFormat() {
    static const std::ios_base::fmtflags kFlags[] = {
        std::ios_base::fixed,    std::ios_base::scientific, std::ios_base::showpos, std::ios_base::uppercase,
        std::ios_base::showbase, std::ios_base::hex,        std::ios_base::oct,     std::ios_base::showpoint,
        std::ios_base::left,     std::ios_base::internal};
    std::ios_base::fmtflags flags{};
    for (std::ios_base::fmtflags flag : kFlags) {
      if (input_.ConsumeBool()) {
        flags |= flag;
      }
    }
    if ((flags & std::ios_base::basefield) == (std::ios_base::hex | std::ios_base::oct)) {
      flags &= ~std::ios_base::oct;
    }
    stream_.flags(flags);
    stream_.precision(input_.ConsumeIntegralInRange<int>(-1, 60));
    stream_.fill(input_.ConsumeBool() ? ' ' : '*');
    width_ = input_.ConsumeIntegralInRange<int>(0, 12);
  }

  void deliver() {
    const int type = input_.ConsumeIntegralInRange<int>(-1, 2);
    const auto answer = static_cast<Answer>(input_.ConsumeIntegralInRange<int>(0, 2));
    const std::string typeName = type >= 0 ? kTypeNames[type] : "";
    auto context = std::make_shared<FakeContext>([answer](MessagePtr&& message) {
      switch (answer) {
        case Answer::Echo:
          return connector::makeResolvedFuture(std::move(message));
        case Answer::Reject:
          return connector::makeRejectedFuture<MessagePtr>(std::runtime_error("refused"));
        default: {
          connector::Promise<MessagePtr> promise;
          Future<MessagePtr> future = promise.getFuture();
          future.cancel();
          return future;
        }
      }
    });
    stream_.width(width_);
    // The reference: a stream with the same format, for the request number and the padding.
    std::ostringstream reference;
    reference.copyfmt(stream_);
    reference.width(width_);

    const bool logged = type >= 0 && model_.enabled &&
                        typeName.compare(0, model_.filter.size(), model_.filter) == 0 &&
                        model_.filter.size() <= typeName.size();
    std::string outcome;
    try {
      std::shared_ptr<connector::Context> forContext = context;
      Future<MessagePtr> future = provider_->deliver(type >= 0 ? makeMessage(type) : nullptr,
                                                     connector::Address("svc"), std::move(forContext));
      MessagePtr response = future.get();
      outcome = response ? "message" : "empty";
    } catch (const std::bad_typeid&) {
      outcome = "bad_typeid";
    } catch (const std::runtime_error& e) {
      outcome = e.what();
    }
    stream_.width(0);
    const std::string expectedOutcome = type < 0                   ? "bad_typeid"
                                        : answer == Answer::Echo   ? "message"
                                        : answer == Answer::Reject ? "refused"
                                                                   : "Future has been cancelled.";
    MODEL_CHECK(outcome == expectedOutcome, "deliver gave " + outcome + ", expected " + expectedOutcome);
    MODEL_CHECK(context->forwardCount() == (type >= 0 ? 1 : 0),
                "the context was called the wrong number of times");

    const std::string written = stream_.str();
    stream_.str("");
    if (!logged) {
      MODEL_CHECK(written.empty(), "a request that is not selected was logged: " + written);
      return;
    }
    const unsigned long number = nextNumber_++;
    std::size_t at = 0;
    reference << model_.prefix;  // takes the pending width, as the real stream's first token does
    expectText(written, at, reference.str(), "request line prefix");
    expectTime(written, at, reference);
    expectText(written, at, ": Request (", "request line");
    expectText(written, at, formatted(reference, number), "request number");
    expectText(written, at, "): " + typeName + "\n", "request line end");
    expectText(written, at, model_.prefix, "closing line prefix");
    expectTime(written, at, reference);
    expectText(written, at, ": Response (", "closing line");
    expectText(written, at, formatted(reference, number), "closing line number");
    if (answer == Answer::Echo) {
      expectText(written, at, "): " + typeName + ": elapsed time ", "response line");
    } else {
      expectText(written, at, "): Exception!: elapsed time ", "exception line");
    }
    expectTime(written, at, reference);
    expectText(written, at, " ms\n", "closing line end");
    MODEL_CHECK(at == written.size(), "more was written than two lines: " + written);
  }

  static std::string formatted(const std::ostringstream& format, unsigned long number) {
    std::ostringstream out;
    out.copyfmt(format);
    out.width(0);
    out << number;
    return out.str();
  }

  static void expectText(const std::string& written, std::size_t& at, const std::string& text,
                         const char* what) {
    MODEL_CHECK(written.compare(at, text.size(), text) == 0, std::string(what) + ": expected \"" + text +
                                                                 "\" at " + std::to_string(at) + " of \"" +
                                                                 written + "\"");
    at += text.size();
  }

  // A time: up to the next ':' or blank, a number that the stream's format writes back as is.
  static void expectTime(const std::string& written, std::size_t& at, const std::ostringstream& format) {
    const std::size_t end = written.find_first_of(": ", at);
    MODEL_CHECK(end != std::string::npos && end > at,
                "no time at " + std::to_string(at) + " of \"" + written + "\"");
    const std::string token = written.substr(at, end - at);
    char* parsedEnd = nullptr;
    const double value = std::strtod(token.c_str(), &parsedEnd);
    MODEL_CHECK(*parsedEnd == '\0', "the time \"" + token + "\" is not a number");
    std::ostringstream again;
    again.copyfmt(format);
    again.width(0);
    again << value;
    MODEL_CHECK(again.str() == token,
                "the time \"" + token + "\" is not what the stream writes for " + again.str());
    at = end;
  }

  FuzzedDataProvider& input_;
  std::ostringstream stream_;
  std::shared_ptr<FakeConfiguration> configuration_;
  std::shared_ptr<LoggingServiceProvider> provider_;
  Settings model_;
  unsigned long nextNumber_ = 0;
  int width_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Session(input).run();
  return 0;
}

// Sends random configuration values, of every alternative, to the keys of a logging service
// provider, interleaved with deliveries on a stream of random format, and checks the provider
// against a model of its three settings and of the lines it writes.
//
// A key takes only its own alternative (bool for ".enabled", std::string for ".filter" and
// ".prefix"); any other is refused with boost::bad_get and changes nothing. A delivery is logged
// when enabled and the message's type name begins with the filter: then the stream holds a
// request line and a response (or exception) line with the next request number, each starting
// with the prefix, and otherwise nothing. The request number comes out as the stream's format
// writes it, each time is a number that the format writes back unchanged, and a pending width
// pads the first token only.
#include <cstdlib>
#include <sstream>

#include "fuzz/FuzzInput.h"
#include "services/LoggingServiceProvider.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"

namespace msg {
// Messages whose type names the filter is matched against.
class A : public connector::Message {};
class AB : public connector::Message {};
}  // namespace msg

namespace {

namespace test_support = connector::test_support;

const std::string kTypeNames[] = {"", "msg::A", "msg::AB"};  // 0: an empty message
const char* const kKeys[] = {"svc.enabled", "svc.filter", "svc.prefix", "svc.other"};

struct Session {
  void run() {
    for (int i = 0; i < 64 && input_.remaining_bytes() > 0; ++i) {
      input_.ConsumeBool() ? send(input_.pick(4), input_.pick(12)) : deliver(input_.pick(3), input_.pick(2));
    }
  }

  // A value of the given alternative: numbers of 1, and strings of random bytes or of a type
  // name's first bytes and perhaps one more (the filters that select something). A key takes it
  // only if it is the key's own alternative.
  void send(int key, int alternative) {
    const std::string name = kTypeNames[1 + input_.pick(2)].substr(0, input_.pick(8));
    const std::string bytes = input_.ConsumeBool() ? input_.ConsumeRandomLengthString(40)
                                                   : name + input_.ConsumeRandomLengthString(1);
    const std::u16string wide(bytes.begin(), bytes.end());
    const bool flag = input_.ConsumeBool();
    const auto many = [n = input_.pick(3)](auto value) { return std::vector<decltype(value)>(n, value); };
    const connector::configuration::ConfigValue values[] = {
        flag, 1, 1u, 1.0, wide, bytes, many(flag), many(1), many(1u), many(1.0), many(bytes), many(wide)};
    const bool takes = (key == 0 && alternative == 0) || ((key == 1 || key == 2) && alternative == 5);
    enabled_ = takes && key == 0 ? flag : enabled_;
    filter_ = takes && key == 1 ? bytes : filter_;
    prefix_ = takes && key == 2 ? bytes : prefix_;
    const std::string refused = "throw:boost::bad_get: failed value get using boost::get";
    fuzz::expect(kKeys[key] + std::to_string(alternative), key < 3 && !takes ? refused : "ok",
                 fuzz::outcomeOf([&] { configuration_->send(kKeys[key], values[alternative]); }));
    MODEL_CHECK(stream_.str().empty(), "a configuration value made the provider write");
  }

  // A message of type 0 (none), 1 or 2 on a stream of random format, answered with itself or
  // refused (every failure of the answer takes the same way through the provider).
  void deliver(int type, bool fails) {
    auto context = std::make_shared<test_support::FakeContext>(fails ? test_support::throwing(refused_)
                                                                     : test_support::echoing());
    test_support::MessagePtr message(type == 0   ? nullptr
                                     : type == 1 ? static_cast<connector::Message*>(new msg::A)
                                                 : new msg::AB);
    stream_.flags(static_cast<std::ios_base::fmtflags>(input_.ConsumeIntegral<std::uint16_t>()));
    stream_.precision(input_.ConsumeIntegralInRange<int>(-1, 60));
    stream_.fill(input_.ConsumeBool() ? ' ' : '*');
    stream_.width(input_.pick(13));
    std::ostringstream format;  // the same format, for the padding, the request number and the times
    format.copyfmt(stream_);
    std::shared_ptr<connector::Context> forContext = context;
    const std::string outcome = fuzz::outcomeOf([&] {
      return provider_.deliver(std::move(message), {}, std::move(forContext)).get() ? "message" : "";
    });
    const char* const expected = type == 0 ? "throw:std::bad_typeid" : fails ? "throw:refused" : "message";
    fuzz::expect("deliver", expected, outcome);
    MODEL_CHECK(context->forwardCount() == (type == 0 ? 0 : 1), "forward() called a wrong number of times");

    const std::string written = stream_.str();
    stream_.str("");
    const std::string& typeName = kTypeNames[type];
    if (type == 0 || !enabled_ || typeName.compare(0, filter_.size(), filter_) != 0) {
      MODEL_CHECK(written.empty(), "a request that is not selected was logged: " + written);
      return;
    }
    const std::string first = (format << prefix_, format.str());  // padded by the pending width
    format.str("");
    const std::string number = (format << nextNumber_++, format.str());
    const std::string closing = fails ? "Exception!" : typeName;
    const std::string pieces[] = {first, ": Request (" + number + "): " + typeName + "\n" + prefix_,
                                  ": Response (" + number + "): " + closing + ": elapsed time ", " ms\n"};
    std::size_t at = 0;
    for (const std::string& piece : pieces) {
      if (&piece != pieces) {  // before each piece but the first, a time as the format writes it
        const std::size_t end = std::min(written.find_first_of(": ", at), written.size());
        format.str("");
        format << std::strtod(written.substr(at, end - at).c_str(), nullptr);
        MODEL_CHECK(written.compare(at, end - at, format.str()) == 0, "no time: " + written);
        at = end;
      }
      MODEL_CHECK(written.compare(at, piece.size(), piece) == 0, "no \"" + piece + "\": " + written);
      at += piece.size();
    }
    MODEL_CHECK(at == written.size(), "more was written than two lines: " + written);
  }

  fuzz::Input& input_;
  std::ostringstream stream_{};
  std::shared_ptr<test_support::FakeConfiguration> configuration_ =
      std::make_shared<test_support::FakeConfiguration>();
  connector::common_services::LoggingServiceProvider provider_{configuration_, "svc", stream_};
  const std::exception_ptr refused_ = std::make_exception_ptr(std::runtime_error("refused"));
  bool enabled_ = true;
  std::string filter_{}, prefix_{};
  unsigned long nextNumber_ = 0;
};

}  // namespace

void runOne(fuzz::Input& input) {
  Session{input}.run();
}

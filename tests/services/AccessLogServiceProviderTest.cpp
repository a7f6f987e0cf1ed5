// The access log: answers pass through untouched and unwaited, the selection rules and their
// precedence, refused settings, and lines a JSON parser reads whatever the exception says.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/log/Log.h"
#include "services/AccessLogServiceProvider.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"
#include "tests/support/HiddenNumbers.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using common_services::AccessLogServiceProvider;
using configuration::ConfigValue;
using test_support::FakeConfiguration;
using test_support::FakeContext;
using test_support::MessagePtr;
using test_support::TempDirectory;
using namespace std::string_literals;

namespace shop {
struct Order : Message {};
struct Ping : Message {};
}  // namespace shop

// An access log named "access" writing to a file of its own, with the given settings sent in.
struct Log {
  TempDirectory directory;
  std::shared_ptr<FakeConfiguration> configuration = std::make_shared<FakeConfiguration>();
  AccessLogServiceProvider provider{configuration, "access"};
  std::string file = directory / "access.log";

  explicit Log(const std::vector<std::pair<std::string, ConfigValue>>& settings = {}) {
    configuration->send("access.destination", "file:" + file);
    for (const auto& setting : settings) {
      configuration->send("access." + setting.first, setting.second);
    }
  }

  Future<MessagePtr> deliver(MessagePtr message, test_support::Answer answer) {
    return provider.deliver(std::move(message), Address("api"),
                            std::make_shared<FakeContext>(std::move(answer)));
  }
  std::vector<std::string> lines() const {
    std::istringstream in(TempDirectory::read(file));
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) {
      all.push_back(line);
    }
    return all;
  }
};

// Whether it comes straight back or later, an answer reaches the caller as the very response
// object or the very exception, and deliver() never waits for it.
TEST(AccessLog, PassesTheSameResponseOrExceptionWithoutWaiting) {
  for (const bool fails : {false, true}) {
    for (const bool pending : {false, true}) {
      SCOPED_TRACE(std::string(fails ? "failing" : "ok") + (pending ? ", pending" : ", settled"));
      Log log;
      MessagePtr response = std::make_unique<shop::Order>();
      const Message* const sent = response.get();
      const auto error = std::make_exception_ptr(std::runtime_error("declined"));
      Promise<MessagePtr> promise;
      Future<MessagePtr> answer = log.deliver(
          std::make_unique<shop::Order>(), test_support::Answer([&](MessagePtr&&) {
            if (pending) {
              return promise.getFuture();
            }
            return fails ? makeRejectedFuture<MessagePtr>(error) : makeResolvedFuture(std::move(response));
          }));
      if (pending) {
        EXPECT_EQ(answer.state->status.load(), detail::Status::Pending);
        EXPECT_TRUE(log.lines().empty());
        fails ? promise.reject(error) : promise.resolve(std::move(response));
      }
      if (fails) {
        try {
          answer.get();
          ADD_FAILURE() << "no exception";
        } catch (...) {
          EXPECT_EQ(std::current_exception(), error);
        }
      } else {
        EXPECT_EQ(answer.get().get(), sent);
      }
      EXPECT_EQ(log.lines().size(), 1u);
    }
  }
}

// An answer that takes at least 3 us, so that a threshold of 1 us makes it slow.
test_support::Answer answering(bool fails, bool slow) {
  return [fails, slow](MessagePtr&& message) {
    for (auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(3);
         slow && std::chrono::steady_clock::now() < until;) {
    }
    return fails ? makeRejectedFuture<MessagePtr>(std::runtime_error("failed"))
                 : makeResolvedFuture(std::move(message));
  };
}

// While enabled: failed requests always, excluded ones never otherwise, slow ones always
// otherwise, the rest when errorsOnly is off and their number is a multiple of sampleEvery.
TEST(AccessLogSelection, FollowsThePrecedenceForEveryCombination) {
  for (const bool enabled : {true, false})
    for (const bool errorsOnly : {false, true})
      for (const int slowerThanUs : {0, 1, 1000000000})
        for (const int sampleEvery : {1, 2})
          for (const bool excluded : {false, true})
            for (const bool fails : {false, true}) {
              Log log(
                  {{"enabled", enabled},
                   {"errorsOnly", errorsOnly},
                   {"slowerThanUs", slowerThanUs},
                   {"sampleEvery", sampleEvery},
                   {"exclude", excluded ? "other, connector::(anonymous namespace)::shop::Ord"s : "other"s}});
              const bool slow = slowerThanUs == 1;
              std::vector<std::string> expected;
              for (int number = 0; number < 2; ++number) {
                try {
                  log.deliver(std::make_unique<shop::Order>(), answering(fails, slow)).get();
                } catch (const std::runtime_error&) {
                }
                if (enabled &&
                    (fails || (!excluded && (slow || (!errorsOnly && number % sampleEvery == 0))))) {
                  expected.push_back(std::to_string(number));
                }
              }
              std::vector<std::string> written;
              for (const std::string& line : log.lines()) {
                written.push_back(line.substr(0, line.find(' ')));
              }
              EXPECT_EQ(written, expected) << "enabled " << enabled << ", errorsOnly " << errorsOnly
                                           << ", slowerThanUs " << slowerThanUs << ", sampleEvery "
                                           << sampleEvery << ", excluded " << excluded << ", fails " << fails;
            }
}

// A refused value leaves the setting as it was and says, on the process log and to the
// configuration, which key, which value and what would do.
TEST(AccessLogSettings, RefusesWrongTypesAndRangesAndKeepsTheSetting) {
  TempDirectory directory;
  const std::string previous = foundation::log::destination();
  foundation::log::set_destination("file:" + (directory / "process.log"));
  struct Case {
    std::string key;
    ConfigValue value;
    std::string text;
  };
  const std::vector<Case> cases = {
      {"enabled", 1,
       "access.enabled refused 1 (int): it takes a bool (true or false); the setting stays true"},
      {"slowerThanUs", -1,
       "access.slowerThanUs refused -1 (int): it takes an int of at least 0 (microseconds; 0 leaves latency "
       "out); the setting stays 0"},
      {"sampleEvery", 0,
       "access.sampleEvery refused 0 (int): it takes an int of at least 1; the setting stays 1"},
      {"sampleEvery", 2.5,
       "access.sampleEvery refused 2.5 (double): it takes an int of at least 1; the setting stays 1"},
      {"exclude", true,
       "access.exclude refused true (bool): it takes a string of comma-separated type-name prefixes; the "
       "setting "
       "stays \"\""},
      {"format", "xml"s,
       "access.format refused \"xml\" (string): it takes the string text or json; the setting stays text"},
      {"destination", "syslog"s,
       "access.destination refused \"syslog\" (string): it takes a string naming a destination such as "
       "stdout, null or file:access.log (unknown log destination \"syslog\": use stderr, stdout, null"},
  };
  Log log;
  for (const Case& refused : cases) {
    try {
      log.configuration->send("access." + refused.key, refused.value);
      ADD_FAILURE() << refused.key << " took the value";
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(std::string(error.what()).substr(0, refused.text.size()), refused.text);
    }
  }
  // Every setting kept its value: text lines of every request, to the file, with number, type,
  // outcome (an exception of forward() itself too), elapsed time and start.
  log.deliver(std::make_unique<shop::Order>(), test_support::echoing()).get();
  EXPECT_THROW(log.deliver(std::make_unique<shop::Ping>(),
                           test_support::throwing(std::make_exception_ptr(std::logic_error("no \"route\"")))),
               std::logic_error);
  std::vector<std::string> shapes;
  for (const std::string& line : log.lines()) {
    shapes.push_back(test_support::hideNumbers(line));
  }
  const std::string times = " elapsed_us=# start=#-#-#T#:#:#.#Z";
  EXPECT_EQ(
      shapes,
      (std::vector<std::string>{
          "# connector::(anonymous namespace)::shop::Order ok" + times,
          "# connector::(anonymous namespace)::shop::Ping std::logic_error \"no \\\"route\\\"\"" + times}));
  foundation::log::set_destination(previous);
  const std::string records = TempDirectory::read(directory / "process.log");
  for (const Case& refused : cases) {
    EXPECT_NE(records.find(refused.text), std::string::npos) << refused.text;
  }
}

template <char... Bytes>
struct Tagged : Message {};

// Whatever bytes an exception text holds, each line is one JSON object with the documented keys.
TEST(AccessLogJson, EveryLineParsesWhateverTheExceptionSays) {
  Log log({{"format", "json"s}});
  const std::vector<std::string> texts = {"plain",
                                          "quote \" backslash \\ slash /",
                                          "new\nline\ttab\x01\x1f",
                                          "caf\xc3\xa9 \xe2\x82\xac",
                                          "bad \xff\xfe utf-8 \xc3",
                                          ""};
  log.deliver(std::make_unique<Tagged<'"', '\\'>>(), test_support::echoing()).get();
  for (const std::string& text : texts) {
    EXPECT_THROW(log.deliver(std::make_unique<shop::Ping>(),
                             test_support::rejecting(std::make_exception_ptr(std::runtime_error(text))))
                     .get(),
                 std::runtime_error);
  }
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), texts.size() + 1);
  const nlohmann::json ok = nlohmann::json::parse(lines[0]);
  EXPECT_EQ(ok["number"], 0);
  EXPECT_EQ(ok["outcome"], "ok");
  EXPECT_NE(ok["type"].get<std::string>().find("Tagged"), std::string::npos);
  EXPECT_TRUE(ok["elapsed_us"].is_number_unsigned());
  EXPECT_EQ(test_support::hideNumbers(ok["start"]), "#-#-#T#:#:#.#Z");
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const nlohmann::json failed = nlohmann::json::parse(lines[i + 1]);
    EXPECT_EQ(failed["outcome"], "failed");
    EXPECT_EQ(failed["exception"], "std::runtime_error");
    const std::string what = failed["what"];
    if (texts[i].find('\xff') == std::string::npos) {
      EXPECT_EQ(what, texts[i]);
    } else {
      EXPECT_EQ(what, "bad \xef\xbf\xbd\xef\xbf\xbd utf-8 \xef\xbf\xbd");
    }
  }
}

}  // namespace
}  // namespace connector

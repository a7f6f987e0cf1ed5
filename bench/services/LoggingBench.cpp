// The cost of the logging provider in front of an echo service, side by side with echo alone and
// with spdlog writing the same two lines per request.
//
// Every case sends one message round trip per iteration (deliver, then get) and reuses the
// message. Compare: echo alone against the pass-through cases (logging off, filter not matching);
// logging to a null stream against echo plus spdlog's two lines to a null sink; and the two file
// cases against each other.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>

#include "bench/BenchMain.h"
#include "foundation/core/diag/Demangle.h"
#include "services/EchoServiceProvider.h"
#include "services/LoggingServiceProvider.h"
#include "tests/support/FakeConfiguration.h"

namespace {

using connector::Address;
using connector::Context;
using connector::Future;
using connector::Message;
using connector::common_services::EchoServiceProvider;
using connector::common_services::LoggingServiceProvider;
using connector::test_support::FakeConfiguration;
using MessagePtr = std::unique_ptr<Message>;

namespace app {
struct Ping : Message {};
}  // namespace app

// Discards everything, successfully.
class NullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Passes every request on to an echo service, as the framework would.
class EchoContext : public Context {
 public:
  Future<MessagePtr> forward(MessagePtr&& message, Address&& address) override {
    return echo.deliver(std::move(message), std::move(address), std::move(none));
  }

 private:
  EchoServiceProvider echo;
  std::shared_ptr<Context> none;
};

std::string logPath(const char* name) {
  return std::string("/tmp/logging_bench_") + name + ".log";
}

void EchoAlone(benchmark::State& state) {
  EchoServiceProvider echo;
  auto context = std::make_shared<EchoContext>();
  std::shared_ptr<Context> handle = context;
  Address address("svc");
  MessagePtr message = std::make_unique<app::Ping>();
  for (auto _ : state) {
    Future<MessagePtr> answer = echo.deliver(std::move(message), std::move(address), std::move(handle));
    message = answer.get();
    benchmark::DoNotOptimize(*message);
  }
}

// The provider in front of echo, with the settings sent in through the configuration.
void runLogging(benchmark::State& state, std::ostream& stream, bool enabled, const std::string& filter) {
  auto configuration = std::make_shared<FakeConfiguration>();
  LoggingServiceProvider provider(configuration, "svc", stream);
  configuration->send("svc.enabled", enabled);
  configuration->send("svc.filter", filter);
  configuration->send("svc.prefix", std::string("bench "));
  std::shared_ptr<Context> context = std::make_shared<EchoContext>();
  Address address("svc");
  MessagePtr message = std::make_unique<app::Ping>();
  for (auto _ : state) {
    Future<MessagePtr> answer = provider.deliver(std::move(message), std::move(address), std::move(context));
    message = answer.get();
    benchmark::DoNotOptimize(*message);
  }
}

void LoggingDisabled(benchmark::State& state) {
  NullBuffer buffer;
  std::ostream stream(&buffer);
  runLogging(state, stream, false, "");
}

void LoggingFilterNotMatching(benchmark::State& state) {
  NullBuffer buffer;
  std::ostream stream(&buffer);
  runLogging(state, stream, true, "other::");
}

void LoggingToNullStream(benchmark::State& state) {
  NullBuffer buffer;
  std::ostream stream(&buffer);
  runLogging(state, stream, true, "");
}

void LoggingToFile(benchmark::State& state) {
  std::ofstream stream(logPath("provider"), std::ios::trunc);
  runLogging(state, stream, true, "");
}

// What a user would write with spdlog instead: the same two lines around the same echo call.
void runSpdlog(benchmark::State& state, std::shared_ptr<spdlog::sinks::sink> sink) {
  spdlog::logger logger("bench", std::move(sink));
  logger.set_pattern("%v");
  logger.flush_on(spdlog::level::info);
  EchoContext context;
  const std::string prefix = "bench ";
  const auto startTime = std::chrono::system_clock::now();
  const auto milliseconds = [](std::chrono::system_clock::duration d) {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count()) / 1000000.0;
  };
  unsigned long number = 0;
  Address address("svc");
  MessagePtr message = std::make_unique<app::Ping>();
  for (auto _ : state) {
    const Message& request = *message;
    const std::string& type = foundation::core::diag::readable_type_name(typeid(request));
    const auto requestTime = std::chrono::system_clock::now();
    logger.info("{}{}: Request ({}): {}", prefix, milliseconds(requestTime - startTime), number, type);
    Future<MessagePtr> answer = context.forward(std::move(message), std::move(address));
    message = answer.get();
    const auto now = std::chrono::system_clock::now();
    const Message& response = *message;
    logger.info("{}{}: Response ({}): {}: elapsed time {} ms", prefix, milliseconds(now - startTime), number,
                foundation::core::diag::readable_type_name(typeid(response)),
                milliseconds(now - requestTime));
    ++number;
    benchmark::DoNotOptimize(*message);
  }
}

void SpdlogToNullSink(benchmark::State& state) {
  runSpdlog(state, std::make_shared<spdlog::sinks::null_sink_mt>());
}

void SpdlogToFile(benchmark::State& state) {
  runSpdlog(state, std::make_shared<spdlog::sinks::basic_file_sink_mt>(logPath("spdlog"), true));
}

BENCHMARK(EchoAlone);
BENCHMARK(LoggingDisabled);
BENCHMARK(LoggingFilterNotMatching);
BENCHMARK(LoggingToNullStream);
BENCHMARK(SpdlogToNullSink);
BENCHMARK(LoggingToFile);
BENCHMARK(SpdlogToFile);

}  // namespace

int main(int argc, char** argv) {
  const int status = connector::bench::runBenchmarks(argc, argv);
  std::remove(logPath("provider").c_str());
  std::remove(logPath("spdlog").c_str());
  return status;
}

// A command's round trip through the administration endpoint, side by side with a raw Unix-socket
// ping-pong that moves the same bytes each way.
//
// AdminRoundTrip: a client sends "bench.echo\n" and reads the framed answer of a command that
// answers a fixed text of the given size; on the server that is a read on the I/O thread, the
// command on a pool thread, and the write back on the I/O thread. RawPingPong: a client writes the
// same request bytes to a connected Unix socket, a thread reads them and writes back as many bytes
// as the framed answer holds. The ratio of the two is the endpoint's overhead over the socket
// itself.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "bench/BenchMain.h"
#include "foundation/log/Log.h"
#include "host/AdminProtocol.h"
#include "host/AdminServer.h"
#include "host/CommandRegistry.h"
#include "tests/support/AdminPeer.h"
#include "tests/support/TempDirectory.h"

namespace {

const std::string kRequest = "bench.echo\n";

// CPU time of every thread of the process: the client's, and the server's or the echo thread's.
double processCpuNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Reports the CPU time all threads spent per round trip, which other load on the machine moves
// far less than the elapsed time.
struct CpuPerRoundTrip {
  benchmark::State& state;
  const double start = processCpuNanoseconds();
  ~CpuPerRoundTrip() {
    state.counters["process_cpu_ns"] =
        benchmark::Counter(processCpuNanoseconds() - start, benchmark::Counter::kAvgIterations);
  }
};

std::string framedAnswer(std::size_t size) {
  return connector::host::admin::frameResponse({connector::host::admin::Status::ok, std::string(size, 'x')});
}

void AdminRoundTrip(benchmark::State& state) {
  const std::size_t size = static_cast<std::size_t>(state.range(0));
  foundation::log::set_specification(
      "off,connector.audit=off");  // the audit record per command is not measured
  connector::test_support::TempDirectory directory;
  auto registry = std::make_shared<connector::host::CommandRegistry>();
  connector::administration::Command echo;
  echo.name = "bench.echo";
  echo.description = "Answers a fixed text.";
  echo.handler = [text = std::string(size, 'x')](std::vector<std::string>&&) { return text; };
  registry->registerCommand(echo);
  connector::host::AdminServer server(registry, directory / "s");
  connector::test_support::AdminPeer peer(directory / "s");
  CpuPerRoundTrip cpu{state};
  for (auto _ : state) {
    peer.send(kRequest);
    auto answer = peer.next();
    if (!answer || answer->text.size() != size) {
      state.SkipWithError("wrong answer");
      break;
    }
    benchmark::DoNotOptimize(*answer);
  }
}

void RawPingPong(benchmark::State& state) {
  const std::size_t answerSize = framedAnswer(static_cast<std::size_t>(state.range(0))).size();
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  // Reads each request whole and answers it; ends when the client's end closes.
  std::thread echo([fd = ends[1], answerSize] {
    std::string request(kRequest.size(), '\0');
    const std::string answer(answerSize, 'x');
    for (;;) {
      std::size_t got = 0;
      while (got < request.size()) {
        const ssize_t n = ::read(fd, &request[got], request.size() - got);
        if (n <= 0) {
          return;
        }
        got += static_cast<std::size_t>(n);
      }
      if (::write(fd, answer.data(), answer.size()) != static_cast<ssize_t>(answer.size())) {
        return;
      }
    }
  });
  std::string answer(answerSize, '\0');
  {
    CpuPerRoundTrip cpu{state};
    for (auto _ : state) {
      if (::write(ends[0], kRequest.data(), kRequest.size()) != static_cast<ssize_t>(kRequest.size())) {
        state.SkipWithError("write failed");
        break;
      }
      std::size_t got = 0;
      while (got < answer.size()) {
        const ssize_t n = ::read(ends[0], &answer[got], answer.size() - got);
        if (n <= 0) {
          break;
        }
        got += static_cast<std::size_t>(n);
      }
      benchmark::DoNotOptimize(answer);
    }
  }
  ::shutdown(ends[0], SHUT_RDWR);
  echo.join();
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace

BENCHMARK(AdminRoundTrip)->Arg(16)->Arg(4096)->UseRealTime();
BENCHMARK(RawPingPong)->Arg(16)->Arg(4096)->UseRealTime();

int main(int argc, char** argv) {
  return connector::bench::runBenchmarks(argc, argv);
}

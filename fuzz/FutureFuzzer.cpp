// Drives promises, futures and continuations with random operation sequences and checks every
// outcome against a small reference model of the shared state: its four statuses, its two
// retrieval flags, its one continuation, and the eight misuse texts.
//
// Everything runs on one thread, so get() is only called where the model says it will not
// block. Continuations are executed in lockstep with the model: each one checks that the model
// expected it to run at that moment, and may itself call get(), throw, settle another promise
// or keep the Future it was handed. Every message carries an id and is counted, so the end of
// each input proves that every message was deleted exactly once.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "framework/Future.h"
#include "framework/ServiceProvider.h"

namespace {

using connector::Future;
using connector::Promise;
using Value = std::unique_ptr<connector::Message>;

// The texts the model expects, written out here rather than taken from the header under test.
const std::string kAlreadyResolved = "runtime_error:Promise already resolved.";
const std::string kPromiseInvalid = "runtime_error:Promise state isn't valid!";
const std::string kAlreadyHandedOut = "runtime_error:Promise already returned a future.";
const std::string kBroken = "runtime_error:Promise destroyed before it provided a value.";
const std::string kFutureInvalid = "runtime_error:Future state isn't valid!";
const std::string kAlreadyRetrieved =
    "runtime_error:Future already returned it's value or has an associated continuation.";
const std::string kCancelled = "runtime_error:Future has been cancelled.";
// A rejection whose exception pointer is (or has become) empty: any std::runtime_error is
// accepted, since rethrowing nothing has no text of its own.
const std::string kAnyRuntimeError = "runtime_error:*";

[[noreturn]] void mismatch(const std::string& what) {
  std::fprintf(stderr, "MODEL MISMATCH: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

// Builds its message only when the check fails: the fuzzers run checks by the million.
#define MODEL_CHECK(ok, what) \
  do {                        \
    if (!(ok)) {              \
      mismatch(what);         \
    }                         \
  } while (false)

void checkOutcome(const std::string& operation, const std::string& expected, const std::string& actual) {
  const bool wildcard = expected == "throw:" + kAnyRuntimeError;
  const bool matches = wildcard ? actual.rfind("throw:runtime_error:", 0) == 0 : actual == expected;
  MODEL_CHECK(matches, operation + ": expected " + expected + ", got " + actual);
}

// A message that knows its id and whether it is alive.
std::vector<char>& liveMessages() {
  static std::vector<char> live;
  return live;
}

class Tagged : public connector::Message {
 public:
  explicit Tagged(int id) : id_(id) {
    auto& live = liveMessages();
    if (live.size() <= static_cast<std::size_t>(id)) {
      live.resize(id + 1, 0);
    }
    MODEL_CHECK(live[id] == 0, "message " + std::to_string(id) + " created twice");
    live[id] = 1;
  }
  ~Tagged() override {
    MODEL_CHECK(liveMessages()[id_] == 1, "message " + std::to_string(id_) + " deleted twice");
    liveMessages()[id_] = 0;
  }
  int id() const { return id_; }

 private:
  int id_;
};

std::string describe(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception_ptr& inner) {
    return inner ? "ptr(" + describe(inner) + ")" : "ptr(null)";
  } catch (const std::runtime_error& e) {
    return std::string("runtime_error:") + e.what();
  } catch (int n) {
    return "int:" + std::to_string(n);
  } catch (...) {
    return "other";
  }
}

std::string describeValue(const Value& value) {
  if (!value) {
    return "value:null";
  }
  return "value:" + std::to_string(static_cast<const Tagged&>(*value).id());
}

template <typename F>
std::string outcomeOf(F&& operation) {
  try {
    return operation();
  } catch (...) {
    return "throw:" + describe(std::current_exception());
  }
}

enum class Status { Pending, Resolved, Rejected, Cancelled };

struct ModelState {
  Status status = Status::Pending;
  bool futureRetrieved = false;
  bool valueRetrieved = false;
  int value = -1;     // id of the message in the box; -1 once moved out (or none)
  std::string error;  // what get() throws while Rejected
  int continuation = -1;
};

struct ModelHandle {
  bool present = false;  // the slot holds a handle object at all
  bool valid = false;
  int state = -1;
};

enum class ContinuationKind { Nothing, Get, Throw, ResolveAnother, Keep, Count };

struct ModelContinuation {
  ContinuationKind kind;
  int state;
  int argument;
};

// One operation that may run a continuation: which one the model expects, and what it did.
struct Frame {
  int expected = -1;
  bool ran = false;
  std::string thrown;
};

constexpr int kSlots = 3;
constexpr int kMaxOperations = 96;

class Session {
 public:
  explicit Session(FuzzedDataProvider& input) : input_(input) {}

  void run() {
    for (int i = 0; i < kMaxOperations && input_.remaining_bytes() > 0; ++i) {
      step();
    }
    // Tear down: promises first (breaking may run continuations), then futures.
    allowThrow_ = false;
    for (int p = 0; p < kSlots; ++p) {
      destroyPromise(p);
    }
    for (int f = 0; f < kSlots; ++f) {
      futures_[f].reset();
      futureModel_[f] = {};
    }
    MODEL_CHECK(frames_.empty(), "an operation frame was left open");
    for (std::size_t id = 0; id < liveMessages().size(); ++id) {
      MODEL_CHECK(liveMessages()[id] == 0, "message " + std::to_string(id) + " was never deleted");
    }
  }

 private:
  int slot() { return input_.ConsumeIntegralInRange<int>(0, kSlots - 1); }

  void step() {
    allowThrow_ = true;
    switch (input_.ConsumeIntegralInRange<int>(0, 12)) {
      case 0:
        newPromise(slot());
        break;
      case 1: {
        const int p = slot();
        getFuture(p, slot());
        break;
      }
      case 2:
        resolve(slot());
        break;
      case 3: {
        const int p = slot();
        reject(p, input_.ConsumeIntegralInRange<int>(0, 4));
        break;
      }
      case 4:
        allowThrow_ = false;
        destroyPromise(slot());
        break;
      case 5: {
        allowThrow_ = false;
        const int from = slot();
        movePromise(from, slot());
        break;
      }
      case 6:
        get(slot());
        break;
      case 7: {
        const int f = slot();
        const auto kind = static_cast<ContinuationKind>(
            input_.ConsumeIntegralInRange<int>(0, static_cast<int>(ContinuationKind::Count) - 1));
        then(f, kind, slot());
        break;
      }
      case 8:
        cancel(slot());
        break;
      case 9: {
        const int f = slot();
        futures_[f].reset();
        futureModel_[f] = {};
        break;
      }
      case 10: {
        const int from = slot();
        moveFuture(from, slot());
        break;
      }
      case 11:
        makeResolved(slot());
        break;
      case 12: {
        const int f = slot();
        makeRejected(f, input_.ConsumeIntegralInRange<int>(0, 2));
        break;
      }
    }
  }

  int newState() {
    states_.emplace_back();
    return static_cast<int>(states_.size()) - 1;
  }

  // Everything the model does when a state settles: a continuation attached to it is taken
  // out, the retrieval flags are cleared, and the continuation is expected to run now.
  void settleModel(ModelState& state, Frame& frame) {
    if (state.continuation >= 0 && (state.status == Status::Resolved || state.status == Status::Rejected)) {
      frame.expected = state.continuation;
      state.continuation = -1;
      state.futureRetrieved = false;
      state.valueRetrieved = false;
    }
  }

  // Runs `operation` with a frame pushed, then checks that the expected continuation ran (and
  // no other), and returns what the continuation threw, if anything.
  template <typename F>
  std::string withFrame(Frame frame, F&& operation, std::string& outcome) {
    frames_.push_back(frame);
    outcome = outcomeOf(std::forward<F>(operation));
    const Frame done = frames_.back();
    frames_.pop_back();
    MODEL_CHECK(done.ran == (done.expected >= 0),
                "continuation " + std::to_string(done.expected) +
                    (done.ran ? " ran although none was expected" : " was expected to run but did not"));
    return done.thrown;
  }

  void newPromise(int p) {
    allowThrow_ = false;
    destroyPromise(p);
    promises_[p].emplace();
    promiseModel_[p] = {true, true, newState()};
  }

  void getFuture(int p, int f) {
    const ModelHandle handle = promiseModel_[p];
    if (!handle.present || busyFutures_[f]) {
      return;
    }
    std::string expected = "ok";
    if (!handle.valid) {
      expected = "throw:" + kPromiseInvalid;
    } else if (states_[handle.state].futureRetrieved) {
      expected = "throw:" + kAlreadyHandedOut;
    } else {
      states_[handle.state].futureRetrieved = true;
    }
    const std::string actual = outcomeOf([&] {
      Future<Value> future = promises_[p]->getFuture();
      futures_[f].reset();
      futures_[f].emplace(std::move(future));
      return std::string("ok");
    });
    checkOutcome("getFuture", expected, actual);
    if (expected == "ok") {
      futureModel_[f] = {true, true, handle.state};
    }
  }

  // The settling operations. On a Cancelled or already settled state the argument stays with
  // the caller.
  void resolve(int p) {
    const ModelHandle handle = promiseModel_[p];
    if (!handle.present || busyPromises_[p]) {
      return;
    }
    const int id = nextMessage_++;
    Value message = std::make_unique<Tagged>(id);
    std::string expected = "ok";
    bool consumed = false;
    Frame frame;
    if (!handle.valid) {
      expected = "throw:" + kPromiseInvalid;
    } else {
      ModelState& state = states_[handle.state];
      if (state.status == Status::Resolved || state.status == Status::Rejected) {
        expected = "throw:" + kAlreadyResolved;
      } else if (state.status == Status::Pending) {
        state.status = Status::Resolved;
        state.value = id;
        consumed = true;
        settleModel(state, frame);
      }
    }
    busyPromises_[p] = true;
    std::string actual;
    const std::string thrown = withFrame(
        frame,
        [&] {
          promises_[p]->resolve(std::move(message));
          return std::string("ok");
        },
        actual);
    busyPromises_[p] = false;
    if (!thrown.empty()) {
      expected = "throw:" + thrown;
    }
    checkOutcome("resolve", expected, actual);
    MODEL_CHECK(consumed == (message == nullptr), consumed ? "resolve left the message with the caller"
                                                           : "resolve took a message it had to leave");
  }

  // Kinds of rejection: a runtime_error, a non-std exception, an exception_ptr wrapped once
  // (unwrapped by get) or twice (get unwraps one level only), and an empty pointer.
  std::pair<std::exception_ptr, std::string> makeError(int kind) {
    const int tag = nextError_++;
    const std::runtime_error base("reject-" + std::to_string(tag));
    const std::string text = "runtime_error:reject-" + std::to_string(tag);
    switch (kind) {
      case 0:
        return {std::make_exception_ptr(base), text};
      case 1:
        return {std::make_exception_ptr(tag), "int:" + std::to_string(tag)};
      case 2:
        return {std::make_exception_ptr(std::make_exception_ptr(base)), text};
      case 3:
        return {std::make_exception_ptr(std::make_exception_ptr(std::make_exception_ptr(base))),
                "ptr(" + text + ")"};
      default:
        return {std::exception_ptr(), kAnyRuntimeError};
    }
  }

  void reject(int p, int kind) {
    const ModelHandle handle = promiseModel_[p];
    if (!handle.present || busyPromises_[p]) {
      return;
    }
    const std::pair<std::exception_ptr, std::string> made = makeError(kind);
    const std::exception_ptr error = made.first;
    const std::string text = made.second;
    std::string expected = "ok";
    Frame frame;
    if (!handle.valid) {
      expected = "throw:" + kPromiseInvalid;
    } else {
      ModelState& state = states_[handle.state];
      if (state.status == Status::Resolved || state.status == Status::Rejected) {
        expected = "throw:" + kAlreadyResolved;
      } else if (state.status == Status::Pending) {
        state.status = Status::Rejected;
        state.error = text;
        settleModel(state, frame);
      }
    }
    busyPromises_[p] = true;
    std::string actual;
    const std::string thrown = withFrame(
        frame,
        [&] {
          promises_[p]->reject(error);
          return std::string("ok");
        },
        actual);
    busyPromises_[p] = false;
    if (!thrown.empty()) {
      expected = "throw:" + thrown;
    }
    checkOutcome("reject", expected, actual);
  }

  // The model of a promise handle going away: a Pending state is broken, and a continuation
  // attached to a settled state runs.
  Frame breakModel(const ModelHandle& handle) {
    Frame frame;
    if (handle.present && handle.valid) {
      ModelState& state = states_[handle.state];
      if (state.status == Status::Pending) {
        state.status = Status::Rejected;
        state.error = kBroken;
      }
      settleModel(state, frame);
    }
    return frame;
  }

  void destroyPromise(int p) {
    if (!promiseModel_[p].present || busyPromises_[p]) {
      return;
    }
    const Frame frame = breakModel(promiseModel_[p]);
    promiseModel_[p] = {};
    busyPromises_[p] = true;
    std::string actual;
    withFrame(
        frame,
        [&] {
          promises_[p].reset();
          return std::string("ok");
        },
        actual);
    busyPromises_[p] = false;
    checkOutcome("~Promise", "ok", actual);
  }

  void movePromise(int from, int to) {
    if (from == to || !promiseModel_[from].present || busyPromises_[from] || busyPromises_[to]) {
      return;
    }
    // Assigning over a promise breaks the state it held, as destroying it would.
    const Frame frame = breakModel(promiseModel_[to]);
    busyPromises_[to] = busyPromises_[from] = true;
    std::string actual;
    withFrame(
        frame,
        [&] {
          if (promises_[to]) {
            *promises_[to] = std::move(*promises_[from]);
          } else {
            promises_[to].emplace(std::move(*promises_[from]));
          }
          return std::string("ok");
        },
        actual);
    busyPromises_[to] = busyPromises_[from] = false;
    checkOutcome("Promise move", "ok", actual);
    promiseModel_[to] = promiseModel_[from];
    promiseModel_[from] = {true, false, -1};
    MODEL_CHECK(!promises_[from]->isValid() && promises_[to]->isValid() == promiseModel_[to].valid,
                "a moved promise has the wrong validity");
  }

  // What get() does on `handle`, applied to the model. Returns std::nullopt where get() would
  // block (a Pending state with nothing wrong): the fuzzer never calls it there.
  std::optional<std::string> getModel(const ModelHandle& handle) {
    if (!handle.valid) {
      return "throw:" + kFutureInvalid;
    }
    ModelState& state = states_[handle.state];
    if (state.valueRetrieved || state.continuation >= 0) {
      return "throw:" + kAlreadyRetrieved;
    }
    switch (state.status) {
      case Status::Pending:
        return std::nullopt;
      case Status::Resolved: {
        state.valueRetrieved = true;
        const std::string expected = state.value >= 0 ? "value:" + std::to_string(state.value) : "value:null";
        state.value = -1;  // moved out; the box stays, empty
        return expected;
      }
      case Status::Rejected: {
        state.valueRetrieved = true;
        const std::string expected = "throw:" + state.error;
        state.error = kAnyRuntimeError;  // the exception pointer was moved out
        return expected;
      }
      case Status::Cancelled:
        state.valueRetrieved = true;
        return "throw:" + kCancelled;
    }
    return std::nullopt;
  }

  void getOn(Future<Value>& future, const ModelHandle& handle, const char* operation) {
    const std::optional<std::string> expected = getModel(handle);
    if (!expected) {
      return;
    }
    const std::string actual = outcomeOf([&] { return describeValue(future.get()); });
    checkOutcome(operation, *expected, actual);
  }

  void get(int f) {
    if (!futureModel_[f].present || busyFutures_[f]) {
      return;
    }
    busyFutures_[f] = true;
    getOn(*futures_[f], futureModel_[f], "get");
    busyFutures_[f] = false;
  }

  void then(int f, ContinuationKind kind, int argument) {
    const ModelHandle handle = futureModel_[f];
    if (!handle.present || busyFutures_[f]) {
      return;
    }
    const int id = static_cast<int>(continuations_.size());
    continuations_.push_back({kind, handle.state, argument});
    std::string expected = "ok";
    Frame frame;
    bool runsNow = false;
    if (!handle.valid) {
      expected = "throw:" + kFutureInvalid;
    } else {
      ModelState& state = states_[handle.state];
      if (state.valueRetrieved || state.continuation >= 0) {
        expected = "throw:" + kAlreadyRetrieved;
      } else if (state.status == Status::Pending) {
        state.continuation = id;
      } else if (state.status != Status::Cancelled) {
        // Attached to a settled state, the continuation runs at once on this thread.
        frame.expected = id;
        runsNow = true;
      }
    }
    busyFutures_[f] = true;
    std::string actual;
    const std::string thrown = withFrame(
        frame,
        [&] {
          futures_[f]->then([this, id](Future<Value> future) { runContinuation(id, std::move(future)); });
          return std::string("ok");
        },
        actual);
    busyFutures_[f] = false;
    if (!thrown.empty()) {
      expected = "throw:" + thrown;
    } else if (runsNow) {
      states_[handle.state].valueRetrieved = true;
    }
    checkOutcome("then", expected, actual);
  }

  void runContinuation(int id, Future<Value> future) {
    MODEL_CHECK(!frames_.empty() && frames_.back().expected == id && !frames_.back().ran,
                "continuation " + std::to_string(id) + " ran when the model did not expect it");
    frames_.back().ran = true;
    const ModelContinuation continuation = continuations_[id];
    const ModelHandle handle{true, true, continuation.state};
    MODEL_CHECK(future.isValid(), "a continuation was handed an invalid future");
    switch (continuation.kind) {
      case ContinuationKind::Nothing:
      case ContinuationKind::Count:
        break;
      case ContinuationKind::Get:
        getOn(future, handle, "get inside a continuation");
        break;
      case ContinuationKind::Throw:
        if (allowThrow_) {
          const std::string text = "continuation-" + std::to_string(id);
          frames_.back().thrown = "runtime_error:" + text;
          throw std::runtime_error(text);
        }
        break;
      case ContinuationKind::ResolveAnother:
        resolve(continuation.argument);
        break;
      case ContinuationKind::Keep: {
        const int f = continuation.argument;
        if (!busyFutures_[f]) {
          futures_[f].reset();
          futures_[f].emplace(std::move(future));
          futureModel_[f] = handle;
        }
        break;
      }
    }
  }

  void cancel(int f) {
    const ModelHandle handle = futureModel_[f];
    if (!handle.present || busyFutures_[f]) {
      return;
    }
    std::string expected;
    if (!handle.valid) {
      expected = "throw:" + kFutureInvalid;
    } else {
      ModelState& state = states_[handle.state];
      if (state.status == Status::Pending) {
        state.status = Status::Cancelled;
        state.continuation = -1;  // destroyed without running
        expected = "true";
      } else {
        expected = "false";
      }
    }
    busyFutures_[f] = true;
    std::string actual;
    withFrame(
        Frame{}, [&] { return std::string(futures_[f]->cancel() ? "true" : "false"); }, actual);
    busyFutures_[f] = false;
    checkOutcome("cancel", expected, actual);
  }

  void moveFuture(int from, int to) {
    if (from == to || !futureModel_[from].present || busyFutures_[from] || busyFutures_[to]) {
      return;
    }
    if (futures_[to]) {
      *futures_[to] = std::move(*futures_[from]);
    } else {
      futures_[to].emplace(std::move(*futures_[from]));
    }
    futureModel_[to] = futureModel_[from];
    futureModel_[from] = {true, false, -1};
    MODEL_CHECK(!futures_[from]->isValid() && futures_[to]->isValid() == futureModel_[to].valid,
                "a moved future has the wrong validity");
  }

  void makeResolved(int f) {
    if (busyFutures_[f]) {
      return;
    }
    const int id = nextMessage_++;
    Value message = std::make_unique<Tagged>(id);
    futures_[f].reset();
    futures_[f].emplace(connector::makeResolvedFuture(std::move(message)));
    const int s = newState();
    states_[s].status = Status::Resolved;
    states_[s].value = id;
    futureModel_[f] = {true, true, s};
  }

  // makeRejectedFuture stores what it is given; given an exception_ptr, get() unwraps it.
  void makeRejected(int f, int kind) {
    if (busyFutures_[f]) {
      return;
    }
    const int tag = nextError_++;
    const std::runtime_error base("made-" + std::to_string(tag));
    const std::string text = "runtime_error:made-" + std::to_string(tag);
    futures_[f].reset();
    const int s = newState();
    states_[s].status = Status::Rejected;
    switch (kind) {
      case 0:
        futures_[f].emplace(connector::makeRejectedFuture<Value>(base));
        states_[s].error = text;
        break;
      case 1:
        futures_[f].emplace(connector::makeRejectedFuture<Value>(std::make_exception_ptr(base)));
        states_[s].error = text;
        break;
      default:
        futures_[f].emplace(connector::makeRejectedFuture<Value>(std::exception_ptr()));
        states_[s].error = kAnyRuntimeError;
        break;
    }
    futureModel_[f] = {true, true, s};
  }

  FuzzedDataProvider& input_;
  std::array<std::optional<Promise<Value>>, kSlots> promises_;
  std::array<std::optional<Future<Value>>, kSlots> futures_;
  std::array<ModelHandle, kSlots> promiseModel_{};
  std::array<ModelHandle, kSlots> futureModel_{};
  // A slot whose handle is in the middle of an operation further up the stack; a continuation
  // leaves it alone, as a caller must not reuse a handle while it is busy.
  std::array<bool, kSlots> busyPromises_{};
  std::array<bool, kSlots> busyFutures_{};
  std::vector<ModelState> states_;
  std::vector<ModelContinuation> continuations_;
  std::vector<Frame> frames_;
  // Continuations throw only where the settling call may throw: never inside ~Promise.
  bool allowThrow_ = true;
  int nextMessage_ = 0;
  int nextError_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  liveMessages().clear();
  Session(input).run();
  return 0;
}

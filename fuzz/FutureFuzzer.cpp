// Drives promises, futures and continuations with random operation sequences on one thread and
// checks every outcome against a model of the shared state: Pending until the first resolve,
// reject, cancel or broken promise, and nothing leaves Resolved, Rejected or Cancelled. get() is
// only called where the model says it will not block. Continuations run in lockstep with the
// model and may throw, resolve a promise, or keep their Future (and call get() on it). Messages
// are counted, so each input ends by proving that every message was deleted exactly once.
#include <optional>

#include "framework/Future.h"
#include "fuzz/FuzzInput.h"
#include "tests/support/CountedMessage.h"

namespace {

using connector::test_support::CountedMessage;
using Value = std::unique_ptr<connector::Message>;

const std::string kAlreadyResolved = "throw:Promise already resolved.";
const std::string kPromiseInvalid = "throw:Promise state isn't valid!";
const std::string kHandedOut = "throw:Promise already returned a future.";
const std::string kBroken = "throw:Promise destroyed before it provided a value.";
const std::string kFutureInvalid = "throw:Future state isn't valid!";
const std::string kRetrieved = "throw:Future already returned it's value or has an associated continuation.";
const std::string kCancelled = "throw:Future has been cancelled.";

enum Status { Pending, Resolved, Rejected, Cancelled };
// A handle is modelled by the index of its state in states_; 0, a dummy, for one that is not valid.
struct State {
  Status status;
  std::string outcome;  // what get() gives once settled
  bool futureTaken = false, valueTaken = false;
  int continuation = -1;
};
// An operation under way: the continuation that must run during it (or -1), and what it did.
// ~Promise and moves must not throw, so the continuations they run neither throw nor resolve.
struct Frame {
  int expected;
  bool ran, quiet;
  std::string thrown;
};

constexpr int kSlots = 3;

struct Session {
  void run() {
    using Operation = void (Session::*)(int, int, int);
    // The first needs nothing in slot a, the next three a promise there, the last four a future.
    static constexpr Operation kOperations[] = {&Session::newPromise,  &Session::getFuture, &Session::settle,
                                                &Session::movePromise, &Session::get,       &Session::then,
                                                &Session::cancel,      &Session::moveFuture};
    for (int i = 0; i < 96 && input_.remaining_bytes() > 0; ++i) {
      const int a = input_.pick(kSlots), b = input_.pick(kSlots), kind = input_.pick(5), op = input_.pick(8);
      if (op < 1 || (op < 4 ? promises_[a].has_value() : futures_[a].has_value())) {
        (this->*kOperations[op])(a, b, kind);
      }
    }
    for (int p = 0; p < kSlots; ++p) {
      movePromise(p, p, 0);  // may run continuations, so not left to ~Session
    }
  }

  bool quiet() const { return !frames_.empty() && frames_.back().quiet; }

  // A Pending state settles. The continuation attached to it is handed over, which clears the
  // retrieval flags, and must run now: returns its id, or -1.
  static int settleModel(State& state, Status status, const std::string& outcome) {
    const int run = state.continuation;
    state = {status, outcome, run < 0 && state.futureTaken, run < 0 && state.valueTaken};
    return run;
  }

  // Runs `operation` while exactly the continuation `run` (or none) runs, and compares its
  // outcome with `expected`, or with what the continuation threw. Returns whether one threw.
  template <typename F>
  bool check(const char* name, int run, const std::string& expected, bool quiet, F&& operation) {
    frames_.push_back({run, false, quiet || this->quiet(), ""});
    const std::string actual = fuzz::outcomeOf(operation);
    const Frame done = frames_.back();
    frames_.pop_back();
    const std::string& want = done.thrown.empty() ? expected : done.thrown;
    MODEL_CHECK(actual == want && done.ran == (run >= 0),
                name + (": got " + actual + ", expected " + want + ", continuation " + std::to_string(run)));
    return !done.thrown.empty();
  }

  void newPromise(int p, int, int) {
    movePromise(p, p, 0);
    promises_[p].emplace();
    states_.push_back({Pending, ""});
    promiseModel_[p] = static_cast<int>(states_.size()) - 1;
  }

  void getFuture(int p, int f, int) {
    const int handle = promiseModel_[p];
    const std::string expected = !handle ? kPromiseInvalid : states_[handle].futureTaken ? kHandedOut : "ok";
    check("getFuture", -1, expected, false, [&] { futures_[f].emplace(promises_[p]->getFuture()); });
    states_[handle].futureTaken = true;
    futureModel_[f] = expected == "ok" ? handle : futureModel_[f];
  }

  // kind 0 resolves with a new message; the others reject with a runtime_error, the same wrapped
  // in one or two exception_ptr levels (get() unwraps one), or an int. On a Cancelled state the
  // message stays with the caller.
  void settle(int p, int, int kind) {
    const std::string id = std::to_string(++nextId_);
    const std::exception_ptr error = std::make_exception_ptr(std::runtime_error("reject-" + id));
    const std::exception_ptr once = std::make_exception_ptr(error);
    const std::exception_ptr errors[] = {
        {}, error, once, std::make_exception_ptr(once), std::make_exception_ptr(1)};
    const std::string reject = "throw:reject-" + id;
    const std::string outcomes[] = {"value:" + id, reject, reject, "throw:other", "throw:other"};
    Value message = std::make_unique<CountedMessage>(id);
    const int handle = promiseModel_[p];
    State& state = states_[handle];
    const bool settled = state.status == Resolved || state.status == Rejected;
    const std::string expected = !handle ? kPromiseInvalid : settled ? kAlreadyResolved : "ok";
    const bool takes = handle && state.status == Pending;
    const int run = takes ? settleModel(state, kind == 0 ? Resolved : Rejected, outcomes[kind]) : -1;
    check(kind == 0 ? "resolve" : "reject", run, expected, false, [&] {
      kind == 0 ? promises_[p]->resolve(std::move(message)) : promises_[p]->reject(errors[kind]);
    });
    MODEL_CHECK(kind != 0 || takes == !message, "resolve took, or left, the message against the model");
  }

  // Destroys the handle in slot `from` (to == from) or moves it over slot `to`. A promise that
  // goes away breaks its state: a Pending one is rejected, and its continuation runs. Slot `from`
  // holds a handle, unless it is to be destroyed.
  template <typename T>
  void move(std::array<std::optional<T>, kSlots>& slots, std::array<int, kSlots>& model, int from, int to) {
    State& gone = states_[model[to]];
    const bool breaks = std::is_same_v<T, connector::Promise<Value>> && model[to] && gone.status == Pending;
    const int run = breaks ? settleModel(gone, Rejected, kBroken) : -1;
    const int moved = model[from];
    model[from] = 0;
    model[to] = from == to ? 0 : moved;
    check("move", run, "ok", true, [&] {
      from == to  ? slots[from].reset()
      : slots[to] ? void(*slots[to] = std::move(*slots[from]))
                  : void(slots[to].emplace(std::move(*slots[from])));
    });
    MODEL_CHECK(from == to || (!slots[from]->isValid() && slots[to]->isValid() == (moved > 0)), "validity");
  }
  void movePromise(int from, int to, int) { move(promises_, promiseModel_, from, to); }
  void moveFuture(int from, int to, int) { move(futures_, futureModel_, from, to); }

  void get(int f, int, int) {
    const int handle = futureModel_[f];
    State& state = states_[handle];
    const bool refused = state.valueTaken || state.continuation >= 0;
    if (handle && !refused && state.status == Pending) {
      return;  // would block
    }
    const std::string expected = !handle ? kFutureInvalid : refused ? kRetrieved : state.outcome;
    state.valueTaken |= state.continuation < 0;
    check("get", -1, expected, false,
          [&] { return "value:" + static_cast<const CountedMessage&>(*futures_[f]->get()).text(); });
  }

  // Attached while Pending; run at once on a settled state, after which the value counts as taken;
  // dropped uncalled on a Cancelled one. What it does: 0 nothing, 1 throw, 2 resolve the promise in
  // `slot`, 3 keep its Future in `slot`, 4 that and get() from it.
  void then(int f, int slot, int kind) {
    const int handle = futureModel_[f];
    State& state = states_[handle];
    const int id = ++nextId_;
    const bool refused = state.valueTaken || state.continuation >= 0;
    const std::string expected = !handle ? kFutureInvalid : refused ? kRetrieved : "ok";
    const bool runsNow = expected == "ok" && (state.status == Resolved || state.status == Rejected);
    const bool attaches = expected == "ok" && state.status == Pending;
    state.continuation = attaches ? id : state.continuation;
    const bool threw = check("then", runsNow ? id : -1, expected, false, [&] {
      futures_[f]->then([this, id, kind, slot, handle, runsNow](connector::Future<Value> future) {
        MODEL_CHECK(
            !frames_.empty() && frames_.back().expected == id && !frames_.back().ran && future.isValid(),
            "continuation " + std::to_string(id) + " ran unexpectedly");
        Frame& frame = frames_.back();
        frame.ran = true;
        if (kind % 5 == 1 && !quiet()) {
          frame.thrown = runsNow ? "throw:continuation-" + std::to_string(id) : "";  // the settler sees none
          throw std::runtime_error("continuation-" + std::to_string(id));
        } else if (kind % 5 == 2 && !quiet() && promises_[slot]) {
          settle(slot, 0, 0);
        } else if (kind % 5 >= 3) {
          futures_[slot].emplace(std::move(future));
          futureModel_[slot] = handle;
          kind % 5 == 4 ? get(slot, 0, 0) : void();
        }
      });
    });
    states_[handle].valueTaken |= runsNow && !threw;
  }

  // Only a Pending state is cancelled; an attached continuation is dropped without running.
  void cancel(int f, int, int) {
    const int handle = futureModel_[f];
    State& state = states_[handle];
    const bool cancels = handle && state.status == Pending;
    const std::string expected = !handle ? kFutureInvalid : cancels ? "true" : "false";
    check("cancel", -1, expected, false, [&] { return futures_[f]->cancel() ? "true" : "false"; });
    state = cancels ? State{Cancelled, kCancelled, state.futureTaken, state.valueTaken} : state;
  }

  fuzz::Input& input_;
  std::array<std::optional<connector::Promise<Value>>, kSlots> promises_{};
  std::array<std::optional<connector::Future<Value>>, kSlots> futures_{};
  std::array<int, kSlots> promiseModel_{}, futureModel_{};
  std::vector<State> states_{State{Pending, ""}};
  std::vector<Frame> frames_{};
  int nextId_ = 0;
};

}  // namespace

void runOne(fuzz::Input& input) {
  Session{input}.run();
  MODEL_CHECK(CountedMessage::alive() == 0, "a message was never deleted");
}

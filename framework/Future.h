// One-shot asynchronous results: the promise/future shared state behind every answer.
//
// A Promise<T> (producer) and a Future<T> (consumer) share one SharedFutureState<T>. The state
// is settled once, with a value (Resolved) or an exception (Rejected); it can also be
// Cancelled by the consumer before that. The consumer either blocks in get() or installs one
// continuation with then(), which runs on the settling thread.
//
//   Pending --resolve--------------> Resolved
//   Pending --reject / ~Promise----> Rejected   ("Promise destroyed before it provided a value.")
//   Pending --Future::cancel-------> Cancelled  (later resolve/reject are ignored)
//   No transition leaves Resolved, Rejected or Cancelled.
//
// A continuation attached by Future::then never lets an exception reach the settling thread (a
// then() that returns a Future settles it with the exception instead); one installed directly
// in the state's `continuation` field makes the settling call throw what it throws.
//
// Ownership: the state is created by std::make_shared and lives while a Promise, a Future, a
// running get() or the Future handed to a running continuation holds it. The value or the
// exception sits in a separately allocated box owned by the state; get() moves the content
// out. A message still in the box when the state dies is deleted with it.
//
// Threads: any thread may settle a state while another waits in get(). A single handle (one
// Promise or one Future object) is not itself meant to be used from two threads at once, as
// with std::promise and std::future; the exception is that get(), then() and cancel() only read
// their handle, so one thread may cancel() a Future while another waits in its get(). A
// continuation runs on the settling thread with the state's lock released. Misuse raises
// std::runtime_error with one of eight fixed texts; a failed lock raises std::system_error.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace connector {

template <typename T>
class Future;
template <typename T>
class Promise;

namespace detail {

// The misuse texts, exactly as callers see them in what().
inline constexpr const char* kPromiseAlreadyResolved = "Promise already resolved.";
inline constexpr const char* kPromiseStateNotValid = "Promise state isn't valid!";
inline constexpr const char* kPromiseAlreadyReturnedFuture = "Promise already returned a future.";
inline constexpr const char* kPromiseDestroyed = "Promise destroyed before it provided a value.";
inline constexpr const char* kFutureStateNotValid = "Future state isn't valid!";
inline constexpr const char* kFutureAlreadyRetrieved =
    "Future already returned it's value or has an associated continuation.";
inline constexpr const char* kFutureCancelled = "Future has been cancelled.";
inline constexpr const char* kInvalidFutureState = "Invalid Future state reached.";
// Not one of the eight: rethrowing an empty std::exception_ptr is undefined behaviour, so get()
// reports a state rejected with an empty pointer with this text instead.
inline constexpr const char* kRejectedWithoutException =
    "Future was rejected with an empty std::exception_ptr; reject with a pointer that holds an "
    "exception.";

enum class Status : std::uint32_t { Pending = 0, Resolved = 1, Rejected = 2, Cancelled = 3 };

// The outcome of a settled state. Which member is alive follows the state's status (Resolved:
// result, Rejected: error), so the box itself destroys nothing; the owning state does.
template <typename T>
union Box {
  T result;
  std::exception_ptr error;

  Box() noexcept {}
  ~Box() {}
  Box(const Box&) = delete;
  Box& operator=(const Box&) = delete;

  // The box is allocated before `value` is touched, so when the allocation fails the caller
  // still owns its value. Also for a test or a host that brings a state into a given status.
  template <typename V>
  static std::unique_ptr<Box> holdingValue(V&& value) {
    std::unique_ptr<Box> box(new Box);
    new (&box->result) T(std::forward<V>(value));
    return box;
  }
  static std::unique_ptr<Box> holdingError(std::exception_ptr exception) {
    std::unique_ptr<Box> box(new Box);
    new (&box->error) std::exception_ptr(std::move(exception));
    return box;
  }
};

// Runs once, on the settling thread, with a valid Future over the state that just settled.
// Owned by the state, which deletes it after the call, or without calling it when the state is
// cancelled or destroyed first.
template <typename T>
class Continuation {
 public:
  virtual ~Continuation() = default;
  virtual void operator()(Future<T> future) = 0;

 protected:
  Continuation() = default;
};

// What Future::then attaches. Run by the settling thread (or a breaking ~Promise), it keeps the
// function's exception from reaching that thread: the settler cannot act on it, and ~Promise is
// noexcept. then() runs a function on a state already settled through runHere() instead, so its
// exception leaves then().
template <typename T, typename F>
class FunctionContinuation final : public Continuation<T> {
 public:
  explicit FunctionContinuation(F function) : function_(std::move(function)) {}
  void operator()(Future<T> future) override {
    try {
      function_(std::move(future));
    } catch (...) {
      // Dropped here; a function that has a failure to report returns a value (see then()).
    }
  }
  void runHere(Future<T> future) { function_(std::move(future)); }

 private:
  F function_;
};

template <typename T>
class SharedFutureState : public std::enable_shared_from_this<SharedFutureState<T>> {
 public:
  // Lock order: a callback subscriber's mutex, then this one. Never held while a continuation
  // runs or while waiters are woken.
  std::mutex mutex;
  std::condition_variable condition;              // waited on by get() while Pending; only notify_all
  std::unique_ptr<Box<T>> value;                  // guarded by mutex; set once, when the state settles
  std::unique_ptr<Continuation<T>> continuation;  // guarded by mutex; at most one
  // Written only under mutex. Atomic so that ~Promise can see a settled state without taking
  // the lock again: once it leaves Pending it never changes.
  std::atomic<Status> status{Status::Pending};
  bool futureRetrieved = false;  // guarded by mutex; set by Promise::getFuture
  bool valueRetrieved = false;   // guarded by mutex; set by Future::get

  SharedFutureState() = default;
  SharedFutureState(const SharedFutureState&) = delete;
  SharedFutureState& operator=(const SharedFutureState&) = delete;

  // No other owner can reach a state that is being destroyed, so nothing needs the lock here.
  ~SharedFutureState() { destroyContent(); }

  // Settles with a value. On a Cancelled state returns normally and leaves `v` with the caller;
  // on a settled one throws "Promise already resolved.". Runs an attached continuation.
  void resolve(T&& v) {
    std::unique_lock<std::mutex> lock(mutex);
    if (!settleValue(std::move(v))) {
      return;
    }
    notifyCompletion(lock);
  }

  // Settles with an exception, stored unchanged. Same rules as resolve().
  void reject(std::exception_ptr e) {
    std::unique_lock<std::mutex> lock(mutex);
    if (!settleError(std::move(e))) {
      return;
    }
    notifyCompletion(lock);
  }

  // The lock is held on entry and released before return. Runs a continuation attached to a
  // Resolved or Rejected state on this thread, then wakes every waiter. If the continuation
  // throws, the exception leaves here and no waiter is woken (none can be waiting: get() is
  // refused while a continuation is attached).
  void notifyCompletion(std::unique_lock<std::mutex>& lock) {
    const Status s = status.load(std::memory_order_relaxed);
    if (continuation && (s == Status::Resolved || s == Status::Rejected)) {
      std::unique_ptr<Continuation<T>> run = std::move(continuation);
      futureRetrieved = false;
      valueRetrieved = false;
      lock.unlock();
      // The continuation may drop every other owner of this state; keep it alive until the
      // waiters are woken.
      std::shared_ptr<SharedFutureState> self = this->shared_from_this();
      (*run)(Future<T>(self));
      run.reset();
      condition.notify_all();
      return;
    }
    lock.unlock();
    condition.notify_all();
  }

  // Settle a state that no one else can see yet: no lock to take and no waiter to wake.
  template <typename V>
  void resolveFresh(V&& v) {
    settleValue(std::forward<V>(v));
  }
  void rejectFresh(std::exception_ptr e) { settleError(std::move(e)); }

  // Breaks an unsettled promise: Pending becomes Rejected with "Promise destroyed before it
  // provided a value.". Waiters are woken, and a continuation runs, as in notifyCompletion().
  void breakPromise() {
    if (status.load(std::memory_order_acquire) != Status::Pending) {
      // Whoever settled or cancelled the state has already woken the waiters, and no
      // continuation can be attached to a settled state.
      return;
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (status.load(std::memory_order_relaxed) == Status::Pending) {
      value = Box<T>::holdingError(std::make_exception_ptr(std::runtime_error(kPromiseDestroyed)));
      status.store(Status::Rejected, std::memory_order_release);
    }
    notifyCompletion(lock);
  }

 private:
  // Called with the lock held (or on a fresh state). Return false when the state is Cancelled
  // and the outcome stays with the caller. The status changes only once the box holds the
  // outcome, so an allocation failure leaves the state Pending and the caller owning its value.
  template <typename V>
  bool settleValue(V&& v) {
    if (!maySettle()) {
      return false;
    }
    value = Box<T>::holdingValue(std::forward<V>(v));
    status.store(Status::Resolved, std::memory_order_release);
    return true;
  }
  bool settleError(std::exception_ptr&& e) {
    if (!maySettle()) {
      return false;
    }
    value = Box<T>::holdingError(std::move(e));
    status.store(Status::Rejected, std::memory_order_release);
    return true;
  }
  bool maySettle() const {
    const Status s = status.load(std::memory_order_relaxed);
    if (s == Status::Resolved || s == Status::Rejected) {
      throw std::runtime_error(kPromiseAlreadyResolved);
    }
    return s != Status::Cancelled;
  }

  void destroyContent() noexcept {
    if (!value) {
      return;
    }
    const Status s = status.load(std::memory_order_relaxed);
    if (s == Status::Resolved) {
      value->result.~T();
    } else if (s == Status::Rejected) {
      value->error.~exception_ptr();
    }
  }
};

}  // namespace detail

// The consumer's handle. Move-only; a moved-from handle is not valid. get() may be called once;
// it blocks until the state settles. Destroying a Future neither cancels nor wakes anything.
template <typename T>
class Future {
 public:
  using State = detail::SharedFutureState<T>;

  // A handle over `s`, valid unless `s` is null (a null state is no state to wait on).
  explicit Future(std::shared_ptr<State> s) noexcept : state(std::move(s)), valid(state != nullptr) {}
  Future(Future&& other) noexcept : state(std::move(other.state)), valid(other.valid.exchange(false)) {}
  Future& operator=(Future&& other) noexcept {
    if (this != &other) {
      valid.store(false);
      state = std::move(other.state);
      valid.store(other.valid.exchange(false));
    }
    return *this;
  }
  Future(const Future&) = delete;
  Future& operator=(const Future&) = delete;

  ~Future() {
    valid.store(false, std::memory_order_seq_cst);
    // state is released by its own destructor, after the store above.
  }

  bool isValid() const noexcept { return valid.load(); }

  // The status as it stands, without waiting (Rejected for a handle that is not valid: there is
  // nothing to wait on). Any status but Pending is final; Resolved means get() would not block.
  detail::Status status() const noexcept {
    return isValid() && state ? state->status.load(std::memory_order_acquire) : detail::Status::Rejected;
  }

  // Returns the value, or throws the stored exception (one level of a stored std::exception_ptr
  // object is unwrapped). A state rejected with an empty std::exception_ptr, directly or inside
  // the unwrapped level, throws std::runtime_error "Future was rejected with an empty
  // std::exception_ptr; reject with a pointer that holds an exception." instead, since
  // rethrowing an empty pointer is undefined. Fails with the fixed texts on an invalid handle, a
  // second get() (even while the first still waits), an attached continuation, a Cancelled
  // state or an unknown status. Blocks without a time limit while Pending. The handle stays
  // valid afterwards, but the value has been moved out.
  T get() {
    if (!valid.load() || !state) {
      throw std::runtime_error(detail::kFutureStateNotValid);
    }
    State& s = *state;  // this handle keeps the state alive for the whole call
    std::unique_lock<std::mutex> lock(s.mutex);
    if (s.valueRetrieved || s.continuation) {
      throw std::runtime_error(detail::kFutureAlreadyRetrieved);
    }
    s.valueRetrieved = true;
    while (s.status.load(std::memory_order_relaxed) == detail::Status::Pending) {
      s.condition.wait(lock);
    }
    const detail::Status status = s.status.load(std::memory_order_relaxed);
    if (status == detail::Status::Resolved && s.value) {
      T result(std::move(s.value->result));
      lock.unlock();
      return result;
    }
    if (status == detail::Status::Rejected && s.value) {
      std::exception_ptr error = std::move(s.value->error);
      lock.unlock();
      rethrowUnwrapped(error);
    }
    if (status == detail::Status::Cancelled) {
      throw std::runtime_error(detail::kFutureCancelled);
    }
    // An unknown code, or a settled status without its box (only a state set up by hand).
    throw std::runtime_error(detail::kInvalidFutureState);
  }

  // Has `f`, callable as R(Future<T>), run once with a valid Future of its own:
  // - Pending: `f` is attached and runs on the thread that settles the state (resolve, reject
  //   or the Promise's destruction) with the lock released. Handing it over clears the state's
  //   flags, so its Future may call get(). An exception from `f` never reaches that thread.
  // - Resolved or Rejected: `f` runs at once on this thread. Afterwards the value counts as
  //   retrieved, whether or not `f` took it.
  // - Cancelled: `f` is destroyed without being called and then() returns normally, as cancel()
  //   does with an attached continuation; get() keeps throwing "Future has been cancelled.".
  // When R is void, then() returns nothing: an exception from `f` leaves then() when `f` runs at
  // once and is dropped when the settling thread runs it. Otherwise then() returns a Future<R>
  // settled with what `f` returns or with what it throws; if `f` is destroyed uncalled, that
  // Future is rejected with "Promise destroyed before it provided a value.".
  // Refused, with "Future already returned it's value or has an associated continuation.",
  // after get() or while a continuation is attached. `f` may re-enter this state.
  template <typename F>
  auto then(F f) {
    using R = std::invoke_result_t<F&, Future<T>>;
    if constexpr (std::is_void_v<R>) {
      attach(std::move(f));
    } else {
      Promise<R> promise;
      Future<R> chained = promise.getFuture();
      attach([promise = std::move(promise), f = std::move(f)](Future<T> settled) mutable {
        std::exception_ptr failure;
        try {
          promise.resolve(f(std::move(settled)));
          return;
        } catch (...) {
          failure = std::current_exception();
        }
        promise.reject(failure);
      });
      return chained;
    }
  }

  // Cancels a Pending state: it becomes Cancelled, an attached continuation is destroyed
  // without running, every waiter wakes (and throws "Future has been cancelled."), and later
  // resolve/reject calls are ignored. Returns false, changing nothing, on a settled state.
  bool cancel() {
    if (!valid.load() || !state) {
      throw std::runtime_error(detail::kFutureStateNotValid);
    }
    // Destroying the continuation may destroy this handle, and with it the last owner.
    std::shared_ptr<State> keep = state;
    State& s = *keep;
    std::unique_ptr<detail::Continuation<T>> dropped;
    {
      std::lock_guard<std::mutex> lock(s.mutex);
      if (s.status.load(std::memory_order_relaxed) != detail::Status::Pending) {
        return false;
      }
      s.status.store(detail::Status::Cancelled, std::memory_order_release);
      dropped = std::move(s.continuation);
    }
    dropped.reset();
    s.condition.notify_all();
    return true;
  }

  // Fields, in this order: the shared state, and whether this handle may be used.
  std::shared_ptr<State> state;
  std::atomic<bool> valid;

 private:
  template <typename F>
  void attach(F f) {
    if (!valid.load() || !state) {
      throw std::runtime_error(detail::kFutureStateNotValid);
    }
    State& s = *state;
    auto run = std::make_unique<detail::FunctionContinuation<T, F>>(std::move(f));
    std::unique_lock<std::mutex> lock(s.mutex);
    if (s.valueRetrieved || s.continuation) {
      throw std::runtime_error(detail::kFutureAlreadyRetrieved);
    }
    const detail::Status status = s.status.load(std::memory_order_relaxed);
    if (status == detail::Status::Cancelled) {
      lock.unlock();
      return;  // `run` is destroyed uncalled
    }
    if (status != detail::Status::Resolved && status != detail::Status::Rejected) {
      s.continuation = std::move(run);
      return;
    }
    lock.unlock();
    // The continuation may destroy this handle; its own Future keeps the state only while it runs.
    std::shared_ptr<State> keep = state;
    run->runHere(Future<T>(keep));
    lock.lock();
    s.valueRetrieved = true;
    lock.unlock();  // before `keep`, perhaps the last owner by now, lets the state and its mutex go
  }

  [[noreturn]] static void rethrowUnwrapped(const std::exception_ptr& error) {
    if (!error) {
      throw std::runtime_error(detail::kRejectedWithoutException);
    }
    try {
      std::rethrow_exception(error);
    } catch (const std::exception_ptr& inner) {
      if (!inner) {
        throw std::runtime_error(detail::kRejectedWithoutException);
      }
      std::rethrow_exception(inner);
    }
  }
};

// The producer's handle. Move-only; a moved-from handle is not valid. Destroying a Promise
// whose state is still Pending breaks it (see SharedFutureState::breakPromise).
template <typename T>
class Promise {
 public:
  using State = detail::SharedFutureState<T>;

  Promise() : state(std::make_shared<State>()), valid(true) {}
  Promise(Promise&& other) noexcept : state(std::move(other.state)), valid(other.valid.exchange(false)) {}
  Promise& operator=(Promise&& other) noexcept {
    if (this != &other) {
      breakState();
      state = std::move(other.state);
      valid.store(other.valid.exchange(false));
    }
    return *this;
  }
  Promise(const Promise&) = delete;
  Promise& operator=(const Promise&) = delete;

  ~Promise() { breakState(); }

  bool isValid() const noexcept { return valid.load(); }

  // Hands out the one Future of this promise; a second call throws "Promise already returned a
  // future.".
  Future<T> getFuture() {
    if (!valid.load() || !state) {
      throw std::runtime_error(detail::kPromiseStateNotValid);
    }
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->futureRetrieved) {
      throw std::runtime_error(detail::kPromiseAlreadyReturnedFuture);
    }
    state->futureRetrieved = true;
    return Future<T>(state);
  }

  // Settles with a value and wakes the waiters, or runs an attached continuation on this thread
  // (the exception of one installed directly in the state leaves here; one attached by then()
  // keeps its own). Throws "Promise already resolved." on a Resolved or Rejected
  // state; on a Cancelled state returns normally and the value stays with the caller.
  void resolve(T&& value) {
    if (!valid.load() || !state) {
      throw std::runtime_error(detail::kPromiseStateNotValid);
    }
    state->resolve(std::move(value));
  }
  template <typename U = T, typename = std::enable_if_t<std::is_copy_constructible_v<U>>>
  void resolve(const T& value) {
    T copy(value);
    resolve(std::move(copy));
  }

  // Settles with an exception, stored unchanged; otherwise as resolve().
  void reject(std::exception_ptr exception) {
    if (!valid.load() || !state) {
      throw std::runtime_error(detail::kPromiseStateNotValid);
    }
    state->reject(std::move(exception));
  }

  // Fields, in this order: the shared state, and whether this handle may be used.
  std::shared_ptr<State> state;
  std::atomic<bool> valid;

 private:
  void breakState() noexcept {
    if (!valid.exchange(false)) {
      state.reset();
      return;
    }
    std::shared_ptr<State> s = std::move(state);
    if (s) {
      s->breakPromise();
    }
  }
};

// A Future that is already Resolved with `value`. Its Promise side was never handed out.
template <typename T>
Future<std::decay_t<T>> makeResolvedFuture(T&& value) {
  using V = std::decay_t<T>;
  auto state = std::make_shared<detail::SharedFutureState<V>>();
  state->resolveFresh(std::forward<T>(value));
  return Future<V>(std::move(state));
}

// A Future that is already Rejected with std::make_exception_ptr(exception). Given a
// std::exception_ptr, the stored object is that pointer, and get() unwraps it one level.
template <typename T, typename E>
Future<T> makeRejectedFuture(E&& exception) {
  std::exception_ptr error = std::make_exception_ptr(std::forward<E>(exception));
  auto state = std::make_shared<detail::SharedFutureState<T>>();
  state->rejectFresh(std::move(error));
  return Future<T>(std::move(state));
}

}  // namespace connector

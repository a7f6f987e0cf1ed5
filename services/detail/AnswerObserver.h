// Watching a request's answer go by without waiting for it: for providers that record what
// became of a request (an access log, statistics) but must neither hold the caller nor change
// the answer.
//
// observeAnswer() takes the future that Context::forward() returned and turns it into the future
// the caller gets: the very same future when the answer is already Resolved (so the same response
// object, at no cost), otherwise a future that settles when the answer settles, with the same
// response or the same exception. It calls `onSettled` exactly once with the outcome, on the
// thread that settles the answer (or at once, when it is already settled).
//
// Internal to connector_common_services. Safe from any thread; it takes no lock of its own.
#pragma once

#include <cxxabi.h>

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "framework/Future.h"
#include "framework/ServiceProvider.h"
#include "services/detail/MessageTypeName.h"

namespace connector {
namespace common_services {
namespace detail {

// What became of a request. `exceptionType` is empty when it succeeded.
struct Outcome {
  std::string_view exceptionType;  // the readable name of the exception's type; valid for the process
  std::string what;                // what() of a std::exception; empty for any other exception

  bool ok() const noexcept { return exceptionType.empty(); }
};

// Inside a catch block: the exception being handled, described.
inline Outcome currentFailure() {
  Outcome outcome;
  const std::type_info* type = abi::__cxa_current_exception_type();
  outcome.exceptionType = type != nullptr ? messageTypeName(*type) : std::string_view("unknown exception");
  try {
    throw;
  } catch (const std::exception& error) {
    outcome.what = error.what();
  } catch (...) {
  }
  return outcome;
}

// `onSettled(const Outcome&)` must not throw. `keepAlive()` returns an owner (a shared_ptr) of
// whatever onSettled uses; it is called only when the answer is still pending, and the owner is
// held until onSettled has run, so that the common path costs no reference count.
//
// `answer` is replaced by the future the caller gets, in place: a provider that returns that
// very variable from deliver() hands an already Resolved answer through without moving it,
// which spares the atomic exchanges of a Future's move and destruction.
template <typename OnSettled, typename KeepAlive>
void observeAnswer(Future<std::unique_ptr<Message>>& answer, OnSettled onSettled, KeepAlive keepAlive) {
  using MessagePtr = std::unique_ptr<Message>;
  using connector::detail::Status;
  const Status status = answer.status();
  if (status == Status::Resolved) {
    onSettled(Outcome{});
    return;
  }
  if (status == Status::Pending) {
    Promise<MessagePtr> promise;
    Future<MessagePtr> relayed = promise.getFuture();
    try {
      answer.then(
          [promise = std::move(promise), onSettled, owner = keepAlive()](Future<MessagePtr> settled) mutable {
            MessagePtr response;
            try {
              response = settled.get();
            } catch (...) {
              onSettled(currentFailure());
              promise.reject(std::current_exception());
              return;
            }
            onSettled(Outcome{});
            promise.resolve(std::move(response));
          });
      answer = std::move(relayed);
      return;
    } catch (...) {
      // then() refused the answer (its value already claimed, say): the promise has gone with the
      // continuation, so the refusal itself becomes the answer, as get() would have reported it.
      onSettled(currentFailure());
      answer = makeRejectedFuture<MessagePtr>(std::current_exception());
      return;
    }
  }
  // Rejected, Cancelled or not a usable future: get() says what the caller would have been told.
  try {
    MessagePtr response = answer.get();
    onSettled(Outcome{});
    answer = makeResolvedFuture(std::move(response));
  } catch (...) {
    onSettled(currentFailure());
    answer = makeRejectedFuture<MessagePtr>(std::current_exception());
  }
}

}  // namespace detail
}  // namespace common_services
}  // namespace connector

// Stopping a server's sessions gracefully: each is asked at once to finish what it is doing, and
// whichever is still open at the deadline is closed. Shared by the administration and HTTP
// servers, whose sessions differ but stop alike.
//
// Internal to connector_host. Call on the server's I/O thread, which also runs the timer.
#pragma once

#include <chrono>
#include <unordered_set>
#include <vector>

#include <boost/asio/steady_timer.hpp>

namespace connector {
namespace host {
namespace detail {

// `drain(Session&)` and `close(Session&)` may destroy a session and so erase it from `sessions`:
// both are called over a copy. `sessions` and `timer` must outlive the timer's wait.
template <typename Session, typename Drain, typename Close>
void drainThenClose(std::unordered_set<Session*>& sessions, boost::asio::steady_timer& timer,
                    std::chrono::steady_clock::time_point deadline, Drain drain, Close close) {
  const std::vector<Session*> open(sessions.begin(), sessions.end());
  for (Session* session : open) {
    drain(*session);
  }
  if (sessions.empty()) {
    return;
  }
  timer.expires_at(deadline);
  timer.async_wait([&sessions, close](const boost::system::error_code& error) {
    if (error) {
      return;
    }
    const std::vector<Session*> left(sessions.begin(), sessions.end());
    for (Session* session : left) {
      close(*session);
    }
  });
}

}  // namespace detail
}  // namespace host
}  // namespace connector

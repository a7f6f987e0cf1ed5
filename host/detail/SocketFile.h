// The administration socket's file: claims a path for a listening Unix socket and gives it back.
//
// Claiming refuses a path that is too long for a Unix socket, that is not a socket, or that a live
// process serves, and replaces a stale socket (one nobody listens on). The socket is made mode
// 0600 before listen(), so no client can connect before it is private, whatever the umask.
// remove() unlinks the file only while it is still the one this made (same inode), so a server
// never removes a socket that another process has put there since.
//
// Threads: use from one thread at a time.
#pragma once

#include <sys/types.h>

#include <string>

#include <boost/asio/local/stream_protocol.hpp>

namespace connector {
namespace host {
namespace detail {

class SocketFile {
 public:
  // Binds `acceptor` (closed) to `path` and makes it listen. Throws std::runtime_error, naming the
  // path and what to do, when the path cannot be claimed; nothing is left behind then.
  SocketFile(boost::asio::local::stream_protocol::acceptor& acceptor, const std::string& path);

  // Unlinks the file if it is still this one's; never throws. Later calls do nothing.
  void remove() noexcept;

 private:
  std::string path_;
  ino_t inode_ = 0;  // of the socket file made here; 0 once removed
};

}  // namespace detail
}  // namespace host
}  // namespace connector

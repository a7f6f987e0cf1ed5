#include "host/detail/SocketFile.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <boost/asio/io_context.hpp>

namespace connector {
namespace host {
namespace detail {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

namespace {

constexpr std::size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

std::string errnoText(int error) {
  return std::strerror(error);
}

// Refuses a path that is not a socket or that a live process serves; removes a stale socket.
void clearStaleSocket(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) {
      return;
    }
    throw std::runtime_error("cannot inspect the socket path " + path + ": " + errnoText(errno));
  }
  if (!S_ISSOCK(status.st_mode)) {
    throw std::runtime_error(path + " exists and is not a socket; remove it or choose another socket path");
  }
  boost::system::error_code error;
  asio::io_context context;
  Local::socket socket(context);
  socket.connect(Local::endpoint(path), error);
  if (!error) {
    throw std::runtime_error("another process is serving on " + path +
                             "; stop it or choose another socket path");
  }
  if (error != asio::error::connection_refused) {
    throw std::runtime_error("cannot tell whether a process serves on " + path + ": " + error.message());
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw std::runtime_error("cannot remove the stale socket " + path + ": " + errnoText(errno));
  }
}

}  // namespace

SocketFile::SocketFile(Local::acceptor& acceptor, const std::string& path) : path_(path) {
  if (path.empty() || path.size() > kMaxSocketPath) {
    throw std::runtime_error("the socket path \"" + path + "\" is " + std::to_string(path.size()) +
                             " bytes long; a Unix socket path needs 1 to " + std::to_string(kMaxSocketPath));
  }
  clearStaleSocket(path);
  boost::system::error_code error;
  acceptor.open(Local(), error);
  if (!error) {
    acceptor.bind(Local::endpoint(path), error);
  }
  if (error) {
    throw std::runtime_error("cannot bind the socket " + path + ": " + error.message());
  }
  // No client can connect before listen(), so the mode is right before anyone can use it,
  // whatever the umask was.
  struct stat status {};
  if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || ::lstat(path.c_str(), &status) != 0) {
    const int saved = errno;
    ::unlink(path.c_str());
    throw std::runtime_error("cannot make the socket " + path + " private (mode 0600): " + errnoText(saved));
  }
  inode_ = status.st_ino;
  acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) {
    ::unlink(path.c_str());
    throw std::runtime_error("cannot listen on the socket " + path + ": " + error.message());
  }
}

void SocketFile::remove() noexcept {
  struct stat status {};
  if (inode_ != 0 && ::lstat(path_.c_str(), &status) == 0 && status.st_ino == inode_) {
    ::unlink(path_.c_str());
  }
  inode_ = 0;
}

}  // namespace detail
}  // namespace host
}  // namespace connector

// The process log's admin: lists the channels that the process has created.
//
// There is one admin per process; get() hands out shared ownership of it, and it stays valid
// for as long as a caller holds it. It keeps no state of its own: every call reads the process
// log afresh. Safe from any thread, concurrently with channels being created.
#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "foundation/Export.h"

namespace foundation {
namespace log {
namespace local {

class CONNECTOR_EXPORT admin {
 public:
  static boost::shared_ptr<admin> get();

  admin(const admin&) = delete;
  admin& operator=(const admin&) = delete;
  ~admin();

  // Every channel's name, in creation order.
  std::vector<std::string> getChannels();

  // The names that match the shell-style `pattern` (fnmatch(3) without flags, so `*` also
  // matches dots), in creation order. A pattern without wildcards matches only that name.
  std::vector<std::string> getChannels(const std::string& pattern);

 private:
  admin() noexcept;
};

}  // namespace local
}  // namespace log
}  // namespace foundation

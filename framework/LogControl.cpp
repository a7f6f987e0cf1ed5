#include "framework/LogControl.h"

#include "foundation/log/Log.h"

namespace connector {
namespace common {

std::string getLogDestination() {
  return foundation::log::destination();
}

void setLogDestination(const std::string& destination) {
  foundation::log::set_destination(destination);
}

std::string getLogSpecification() {
  return foundation::log::specification();
}

void setLogSpecification(const std::string& specification) {
  foundation::log::set_specification(specification);
}

}  // namespace common
}  // namespace connector

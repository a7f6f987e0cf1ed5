#include "framework/Configuration.h"

namespace connector {
namespace configuration {

Configuration::Configuration() noexcept = default;
Configuration::~Configuration() = default;

}  // namespace configuration
}  // namespace connector

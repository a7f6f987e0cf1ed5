#include "framework/Connector.h"

namespace connector {

Connector::Connector() noexcept = default;
Connector::~Connector() = default;

}  // namespace connector

// Offers five administration commands over the process log (foundation/log): read and change
// its destination and its specification, and list its channels.
//
//   connector.log.getDestination    no argument      the destination in force
//   connector.log.setDestination    DESTINATION      makes it the destination; answers ""
//   connector.log.getSpecification  no argument      the specification in force
//   connector.log.setSpecification  SPECIFICATION    makes it the specification; answers ""
//   connector.log.getChannels       [PATTERN]        the channels (matching PATTERN), one per line
//
// The constructor registers the commands in that order and the destructor withdraws them in the
// same order, neither waiting for the registry. The provider holds only the registry; the
// handlers capture nothing, so the registry may keep and call them after the provider is gone.
// Handlers pass texts through unchanged and may run on any thread, concurrently; the process
// log is thread-safe. A setter's refusal (std::invalid_argument or std::runtime_error) reaches
// the registry unchanged, and a set command called without an argument throws
// std::invalid_argument naming the command.
#pragma once

#include <memory>

#include "foundation/Export.h"
#include "framework/Administration.h"

namespace connector {
namespace common_services {

class CONNECTOR_EXPORT LoggingCommandProvider : public connector::administration::CommandProvider {
 public:
  // Registers the five commands one after another. If a registration throws, the exception
  // leaves here and the commands registered before it stay registered (and usable).
  explicit LoggingCommandProvider(std::shared_ptr<connector::administration::Administration> administration);

  // Withdraws the five commands. The registry's unregisterCommand() must not throw.
  ~LoggingCommandProvider() override;

 private:
  std::shared_ptr<connector::administration::Administration> administration_;
};

}  // namespace common_services
}  // namespace connector

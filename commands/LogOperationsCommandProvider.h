// Offers the process log's (foundation/log) production commands to operators: reopen its file
// after an outside tool rotated it, switch a specification on for a while, and read its counts.
//
//   connector.log.reopen                                no argument   reopens the destination's file; answers
//   "" connector.log.setSpecificationFor SECONDS SPECIFICATION           applies SPECIFICATION, restores the
//                                                                     one in force before the window after
//                                                                     SECONDS (1 to 86400); re-issuing
//                                                                     replaces the window and keeps what is
//                                                                     restored; setSpecification ends the
//                                                                     window; answers ""
//   connector.log.getStatistics                         no argument   "records=N dropped=N queued=N
//                                                                     rotations=N reopens=N", then "trace=N
//                                                                     debug=N info=N warn=N error=N
//                                                                     critical=N", "destination=TEXT" and,
//                                                                     while a restore is pending,
//                                                                     "restore=SPEC in_s=N", a line each
//
// The constructor registers the commands in that order and the destructor withdraws them in the
// same order, neither waiting for the registry. The provider holds only the registry; the
// handlers capture nothing, so the registry may keep and call them after the provider is gone.
// Handlers may run on any thread, concurrently; the process log is thread-safe. A refusal of the
// process log (std::invalid_argument, std::runtime_error) reaches the registry unchanged; a
// SECONDS that is not a whole number, or a missing argument, throws std::invalid_argument
// naming the command.
#pragma once

#include <memory>

#include "foundation/Export.h"
#include "framework/Administration.h"
#include "framework/CommandRegistrations.h"

namespace connector {
namespace common_services {

class CONNECTOR_EXPORT LogOperationsCommandProvider : public connector::administration::CommandProvider {
 public:
  // Registers the three commands one after another. If a registration throws, the exception
  // leaves here and the commands registered before it are withdrawn again. Another provider may
  // be built before this one is destroyed: the commands stay while one of them lives.
  explicit LogOperationsCommandProvider(
      std::shared_ptr<connector::administration::Administration> administration);

  // Withdraws the three commands unless another provider still lives. The registry's
  // unregisterCommand() must not throw.
  ~LogOperationsCommandProvider() override;

 private:
  connector::administration::CommandRegistrations commands_;
};

}  // namespace common_services
}  // namespace connector

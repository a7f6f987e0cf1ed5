// Commands held on behalf of one provider, so that providers of the same commands can replace
// each other in either order: build the new one, then destroy the old, or the other way round.
//
// Every holder that adds a command of a name claims it; the registry sees one registration per
// name and registry, made by the first claim and withdrawn when the last claim goes. That one
// command runs the handler of the newest live claim, so after a swap the live provider answers,
// and no holder withdraws a registration it did not make. A name the registry already holds
// from elsewhere (registerCommand() answered false) is left alone: a claim on it never answers
// and its holder never withdraws it. The description and bounds are those of the first claim.
//
// Threads: any thread may add or destroy holders at once. Lock order: this file's table, then
// the registry's locks; no lock of this file is held while a handler runs, so a handler may
// add or drop claims. registerCommand() is waited for with get(), so the registry must settle
// its answers without needing the calling thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/Export.h"
#include "framework/Administration.h"

namespace connector {
namespace administration {

class CONNECTOR_EXPORT CommandRegistrations {
 public:
  explicit CommandRegistrations(std::shared_ptr<Administration> administration) noexcept;
  CommandRegistrations(const CommandRegistrations&) = delete;
  CommandRegistrations& operator=(const CommandRegistrations&) = delete;

  // Drops every claim of this holder; never throws.
  ~CommandRegistrations();

  // Claims `command`'s name for this holder. An exception of the registry (a record it refuses)
  // leaves here with no claim made.
  void add(Command command);

 private:
  std::shared_ptr<Administration> administration_;
  std::vector<std::string> names_;  // claimed, in order
};

}  // namespace administration
}  // namespace connector

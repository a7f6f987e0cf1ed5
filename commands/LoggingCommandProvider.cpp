#include "commands/LoggingCommandProvider.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "foundation/log/Admin.h"
#include "framework/LogControl.h"

namespace connector {
namespace common_services {

namespace {

using administration::Command;
using Arguments = std::vector<std::string>;

constexpr const char* kGetDestination = "connector.log.getDestination";
constexpr const char* kSetDestination = "connector.log.setDestination";
constexpr const char* kGetSpecification = "connector.log.getSpecification";
constexpr const char* kSetSpecification = "connector.log.setSpecification";
constexpr const char* kGetChannels = "connector.log.getChannels";

constexpr const char* kGetDestinationDescription = "Get the current fl::log destination.";
constexpr const char* kSetDestinationDescription = "Configure the fl::log destination.";
constexpr const char* kGetSpecificationDescription = "Get the current fl::log specification.";
constexpr const char* kSetSpecificationDescription = "Update the fl::log specification.";
constexpr const char* kGetChannelsDescription = "Get the current list of fl::log channels.";

// A registry that does not enforce the declared minimum must not make a setter read past the end.
constexpr const char* kSetDestinationNeedsArgument =
    "connector.log.setDestination needs one argument (a destination such as stderr or file:app.log)";
constexpr const char* kSetSpecificationNeedsArgument =
    "connector.log.setSpecification needs one argument (a specification such as warn,connector.*=debug)";

// Registration and withdrawal order.
constexpr const char* kCommandNames[] = {kGetDestination, kSetDestination, kGetSpecification,
                                         kSetSpecification, kGetChannels};

std::string getDestination(Arguments&&) {
  return common::getLogDestination();
}

std::string setDestination(Arguments&& arguments) {
  if (arguments.empty()) {
    throw std::invalid_argument(kSetDestinationNeedsArgument);
  }
  common::setLogDestination(arguments.front());
  return {};
}

std::string getSpecification(Arguments&&) {
  return common::getLogSpecification();
}

std::string setSpecification(Arguments&& arguments) {
  if (arguments.empty()) {
    throw std::invalid_argument(kSetSpecificationNeedsArgument);
  }
  common::setLogSpecification(arguments.front());
  return {};
}

std::string getChannels(Arguments&& arguments) {
  const auto admin = foundation::log::local::admin::get();
  const std::vector<std::string> channels =
      arguments.empty() ? admin->getChannels() : admin->getChannels(arguments.front());
  std::string output;
  for (const std::string& channel : channels) {
    output += channel;
    output += '\n';
  }
  return output;
}

}  // namespace

LoggingCommandProvider::LoggingCommandProvider(
    std::shared_ptr<connector::administration::Administration> administration)
    : administration_(std::move(administration)) {
  // One at a time, each future dropped before the next registration: a failure part-way leaves
  // the earlier commands registered, which is harmless since the handlers own nothing.
  administration_->registerCommand(
      Command{kGetDestination, kGetDestinationDescription, &getDestination, 0, 0});
  administration_->registerCommand(
      Command{kSetDestination, kSetDestinationDescription, &setDestination, 1, 1});
  administration_->registerCommand(
      Command{kGetSpecification, kGetSpecificationDescription, &getSpecification, 0, 0});
  administration_->registerCommand(
      Command{kSetSpecification, kSetSpecificationDescription, &setSpecification, 1, 1});
  administration_->registerCommand(Command{kGetChannels, kGetChannelsDescription, &getChannels, 0, 1});
}

LoggingCommandProvider::~LoggingCommandProvider() {
  for (const char* name : kCommandNames) {
    administration_->unregisterCommand(name);
  }
}

}  // namespace common_services
}  // namespace connector

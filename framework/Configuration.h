// The configuration store as the library sees it: values under keys, written with set() and
// followed with observe().
//
// set() stores a value under a label and reports through a Future<bool> whether the store took
// it; callers that do not need the outcome drop that future at once. observe() returns a
// Publisher that delivers the key's values to each subscriber. Which value a key takes when
// several labels set it, and on which threads values are delivered, is the store's contract.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/variant.hpp>

#include "foundation/Export.h"
#include "framework/Future.h"
#include "framework/ReactiveStreams.h"

namespace connector {
namespace configuration {

// A configuration value. Consumers take exactly the alternative they expect with boost::get;
// there is no conversion between alternatives.
using ConfigValue =
    boost::variant<bool, int, unsigned int, double, std::u16string, std::string, std::vector<bool>,
                   std::vector<int>, std::vector<unsigned int>, std::vector<double>, std::vector<std::string>,
                   std::vector<std::u16string>>;

class CONNECTOR_EXPORT Configuration {
 public:
  Configuration() noexcept;
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;
  virtual ~Configuration();

  virtual Future<bool> set(const std::string& key, ConfigValue value, const std::string& label) = 0;
  virtual std::shared_ptr<reactive_streams::Publisher<ConfigValue>> observe(const std::string& key) = 0;
};

}  // namespace configuration
}  // namespace connector

// The configuration store as the library sees it: values under keys, written with set() and
// followed with observe().
//
// set() stores a value under a label and reports through a Future<bool> whether the store took
// it; callers that do not need the outcome drop that future at once. A text given as a string
// literal, a const char* or a std::string_view is stored as a std::string: without the overload
// below, set("svc.filter", "app::Ping", "operator") would store the bool true, which the variant
// prefers for a pointer. A null const char* is refused with a rejected Future. observe() returns a
// Publisher that delivers the key's values to each subscriber. Which value a key takes when
// several labels set it, and on which threads values are delivered, is the store's contract.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
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

  // Stores the text as a std::string. A template, so that only texts take it: a literal 0, which
  // would convert to a null const char*, still goes to the int alternative. A class that
  // overrides set() brings this one back with `using Configuration::set;`.
  template <typename Text, std::enable_if_t<std::is_same_v<std::decay_t<Text>, const char*> ||
                                                std::is_same_v<std::decay_t<Text>, char*> ||
                                                std::is_same_v<std::decay_t<Text>, std::string_view>,
                                            int> = 0>
  Future<bool> set(const std::string& key, Text&& text, const std::string& label) {
    const std::decay_t<Text> view = text;  // an array becomes a pointer
    if constexpr (!std::is_same_v<std::decay_t<Text>, std::string_view>) {
      if (view == nullptr) {
        return makeRejectedFuture<bool>(std::invalid_argument(
            "configuration key \"" + key + "\" was given a null const char* as its value"));
      }
    }
    return set(key, ConfigValue(std::string(std::string_view(view))), label);
  }
};

}  // namespace configuration
}  // namespace connector

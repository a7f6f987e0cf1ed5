// The name that the providers of this library give a message's type in their lines and their
// statistics: the readable (demangled) name of its dynamic type, cached once per process, without
// a "class " that some demanglers put in front.
//
// Internal to connector_common_services. Safe from any thread; the view stays valid for the life
// of the process.
#pragma once

#include <string_view>
#include <typeinfo>

#include "foundation/core/diag/Demangle.h"

namespace connector {
namespace common_services {
namespace detail {

// Wherever "class " is found, the first six characters go: the logging provider's lines have
// always been cut this way, and every provider names types alike.
inline std::string_view messageTypeName(const std::type_info& type) {
  constexpr std::string_view kClassKeyword = "class ";
  std::string_view name = foundation::core::diag::readable_type_name(type);
  if (name.find(kClassKeyword) != std::string_view::npos) {
    name.remove_prefix(kClassKeyword.size());
  }
  return name;
}

}  // namespace detail
}  // namespace common_services
}  // namespace connector

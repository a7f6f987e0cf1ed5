// Readable type names: turns the runtime name of a type (std::type_info::name()) into the name a
// person writes in C++, for diagnostics and log lines.
//
// demangle_typeid_name() demangles afresh on every call. readable_type_name() demangles each type
// once per process and then hands out the same cached text; use it where the name is wanted often.
//
// Threads: both functions may be called from any thread, concurrently. The cache behind
// readable_type_name() lives until the process ends; the strings it returns are never changed or
// freed, so a reference to one may be kept for as long as the process runs.
#pragma once

#include <string>
#include <typeinfo>

#include "foundation/Export.h"

namespace foundation {
namespace core {
namespace diag {

namespace detail {

// The readable form of `name`, a runtime type name as std::type_info::name() returns it
// ("N1a4PingE" gives "a::Ping"). The flag says what happens to a name that cannot be demangled:
// with `strict` false it comes back unchanged, byte for byte; with `strict` true the call throws
// std::invalid_argument naming it. A null `name` throws std::invalid_argument either way.
// Allocation failure throws std::bad_alloc.
CONNECTOR_EXPORT std::string demangle_typeid_name(const char* name, bool strict);

}  // namespace detail

// The readable name of `type`: the text demangle_typeid_name(type.name(), false) returns,
// computed on the first call for a type and cached for the life of the process. Later calls for
// the same type allocate nothing and take no lock. Throws only on the first call for a type, and
// only std::bad_alloc.
CONNECTOR_EXPORT const std::string& readable_type_name(const std::type_info& type);

}  // namespace diag
}  // namespace core
}  // namespace foundation

#include "foundation/core/diag/Demangle.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <forward_list>
#include <memory>
#include <mutex>
#include <stdexcept>

#include <boost/core/demangle.hpp>

namespace foundation {
namespace core {
namespace diag {

namespace detail {

std::string demangle_typeid_name(const char* name, bool strict) {
  if (name == nullptr) {
    throw std::invalid_argument(
        "demangle_typeid_name needs a type name such as std::type_info::name() returns, but was given a null "
        "pointer");
  }
  if (!strict) {
    return boost::core::demangle(name);
  }
  const boost::core::scoped_demangled_name demangled(name);
  if (demangled.get() == nullptr) {
    throw std::invalid_argument(std::string("demangle_typeid_name cannot demangle \"") + name +
                                "\": it is not a runtime type name such as std::type_info::name() returns");
  }
  return demangled.get();
}

}  // namespace detail

namespace {

// One cached type. The runtime name is kept as a copy too: a library unloaded and another loaded
// in its place could put a different type's name at an address seen before.
struct CachedName {
  const char* runtimeName;
  std::string runtimeCopy;
  std::string readable;

  bool matches(const char* name) const noexcept {
    return runtimeName == name && std::strcmp(runtimeCopy.c_str(), name) == 0;
  }
};

// The cache is an open-addressed table of pointers keyed by the address of the runtime name.
// A slot goes from null to an entry once, by compare-and-swap, and never changes again, so a
// lookup is a few acquire loads and a string compare: no lock and no allocation. Entries are
// never freed. Types that find no free slot within kProbes steps (a process with very many
// message types) go to a list under a mutex instead.
constexpr std::size_t kSlots = 1024;  // a power of two
constexpr std::size_t kProbes = 32;

std::array<std::atomic<const CachedName*>, kSlots> slots{};

std::mutex overflowMutex;

// Guarded by overflowMutex. Never destroyed, so that names handed out stay valid in static
// destructors too.
std::forward_list<CachedName>& overflow() {
  static auto* const list = new std::forward_list<CachedName>;
  return *list;
}

std::size_t home(const char* name) noexcept {
  // Fibonacci hashing of the address; the low bits of a string address carry little.
  const auto bits = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(name));
  return static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15ULL) >> 54) & (kSlots - 1);
}

const std::string& fromOverflow(const char* name) {
  std::lock_guard<std::mutex> lock(overflowMutex);
  std::forward_list<CachedName>& list = overflow();
  for (const CachedName& entry : list) {
    if (entry.matches(name)) {
      return entry.readable;
    }
  }
  list.push_front(CachedName{name, name, detail::demangle_typeid_name(name, false)});
  return list.front().readable;
}

const std::string& insert(const char* name) {
  auto entry =
      std::make_unique<CachedName>(CachedName{name, name, detail::demangle_typeid_name(name, false)});
  std::size_t index = home(name);
  for (std::size_t step = 0; step < kProbes; ++step, index = (index + 1) & (kSlots - 1)) {
    const CachedName* seen = nullptr;
    if (slots[index].compare_exchange_strong(seen, entry.get(), std::memory_order_acq_rel,
                                             std::memory_order_acquire)) {
      return entry.release()->readable;
    }
    // Another thread took the slot first, possibly for this very type.
    if (seen->matches(name)) {
      return seen->readable;
    }
  }
  return fromOverflow(name);
}

}  // namespace

const std::string& readable_type_name(const std::type_info& type) {
  const char* name = type.name();
  std::size_t index = home(name);
  for (std::size_t step = 0; step < kProbes; ++step, index = (index + 1) & (kSlots - 1)) {
    const CachedName* entry = slots[index].load(std::memory_order_acquire);
    if (entry == nullptr) {
      return insert(name);
    }
    if (entry->matches(name)) {
      return entry->readable;
    }
  }
  return fromOverflow(name);
}

}  // namespace diag
}  // namespace core
}  // namespace foundation

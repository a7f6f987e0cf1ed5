// Readable type names: what the demangler makes of runtime names, what it does with names it
// cannot read, and that the per-type cache hands out the same text, once computed, to every
// thread.
#include <cstddef>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/core/diag/Demangle.h"

namespace a {
struct Ping {};
}  // namespace a

namespace {

using foundation::core::diag::readable_type_name;
using foundation::core::diag::detail::demangle_typeid_name;
using ::testing::HasSubstr;

TEST(Demangle, RuntimeNamesBecomeTheNamesWrittenInCode) {
  EXPECT_EQ(demangle_typeid_name("N1a4PingE", false), "a::Ping");
  EXPECT_EQ(demangle_typeid_name("i", true), "int");
  EXPECT_EQ(demangle_typeid_name(typeid(std::pair<a::Ping, unsigned>).name(), false),
            "std::pair<a::Ping, unsigned int>");
}

TEST(Demangle, ANameThatCannotBeDemangledComesBackUnchangedUnlessStrict) {
  EXPECT_EQ(demangle_typeid_name("not a type!", false), "not a type!");
  EXPECT_EQ(demangle_typeid_name("", false), "");
  try {
    demangle_typeid_name("not a type!", true);
    ADD_FAILURE() << "strict demangling accepted a name that is no type";
  } catch (const std::invalid_argument& error) {
    EXPECT_THAT(error.what(), HasSubstr("\"not a type!\""));
  }
  for (bool strict : {false, true}) {
    EXPECT_THROW(demangle_typeid_name(nullptr, strict), std::invalid_argument);
  }
}

template <std::size_t... N>
std::vector<const std::type_info*> manyTypes(std::index_sequence<N...>) {
  return {&typeid(std::integral_constant<std::size_t, N>)...};
}

// More types than the lock-free table holds, so the overflow list is used too. Threads race for
// the first lookup of each type; all must receive the one cached string.
TEST(ReadableTypeName, EveryThreadGetsTheSameCachedDemangledTextForAType) {
  const std::vector<const std::type_info*> types = manyTypes(std::make_index_sequence<1500>());
  constexpr int kThreads = 4;
  std::vector<std::vector<const std::string*>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (const std::type_info* type : types) {
        seen[t].push_back(&readable_type_name(*type));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::set<const std::string*> distinct;
  for (std::size_t i = 0; i < types.size(); ++i) {
    for (int t = 0; t < kThreads; ++t) {
      ASSERT_EQ(seen[t][i], seen[0][i]) << i;
    }
    ASSERT_EQ(*seen[0][i], demangle_typeid_name(types[i]->name(), false));
    distinct.insert(seen[0][i]);
  }
  EXPECT_EQ(distinct.size(), types.size());
  EXPECT_EQ(&readable_type_name(*types[7]), seen[0][7]);
}

}  // namespace

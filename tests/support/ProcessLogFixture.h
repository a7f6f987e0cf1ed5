// A fixture for tests of the process log, which is process-wide: each test starts and ends with
// no confinement, the specification "info" and the destination "null".
#pragma once

#include <gtest/gtest.h>

#include "foundation/log/Log.h"

namespace connector {
namespace test_support {

class ProcessLogFixture : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

 private:
  static void reset() {
    foundation::log::confine_file_destinations("");
    foundation::log::set_specification("info");
    foundation::log::set_destination("null");
  }
};

}  // namespace test_support
}  // namespace connector

// Runs a piece of test code that must stop and returns every line it printed.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/report.h"

namespace kx::testing {

// Runs `body`, expecting a kx::Stop; returns the printed lines (the stop line last).
template <typename F>
std::vector<std::string> StopLines(F body) {
  OutputCapture capture;
  EXPECT_THROW(body(), Stop);
  return capture.lines();
}

}  // namespace kx::testing

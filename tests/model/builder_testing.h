// Helpers of the model-builder tests: builds into a scratch directory that capture their
// output.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/report.h"
#include "model/builder.h"
#include "testing/scratch_dir.h"

namespace kx::model::testing {

using kx::testing::ScratchDir;

// Result of one build: the store when it passed, the printed text, and whether it stopped.
struct BuildResult {
  ModelStore store;
  std::string output;
  std::vector<std::string> lines;  // printed lines without the phase timing lines
  bool stopped = false;
};

inline BuildResult Build(const std::string& text, const ScratchDir& dir, int diaglevel = 0,
                         int max_memory = 4) {
  BuildResult r;
  OutputCapture out;
  BuildOptions o;
  o.diaglevel = diaglevel;
  o.max_memory = max_memory;
  o.work_dir = dir.str();
  try {
    r.store = BuildModelFromText(text, o);
  } catch (const Stop&) {
    r.stopped = true;
  }
  r.output = out.text();
  for (const std::string& line : out.lines()) {
    if (line.find("(sec):") == std::string::npos) r.lines.push_back(line);
  }
  return r;
}

}  // namespace kx::model::testing

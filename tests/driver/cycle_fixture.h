// The program run as a user runs it: in a fresh working directory, with its output, exit
// status and the files it leaves there.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "testing/scratch_dir.h"

namespace kx::driver {

struct RunResult {
  int status = -1;
  std::string out;
  bool Has(const std::string& s) const { return out.find(s) != std::string::npos; }
};

class CycleTest : public ::testing::Test {
 protected:
  void Write(const std::string& name, const std::string& text) { dir_.Write(name, text); }
  std::string Read(const std::string& name) { return dir_.Read(name); }
  bool Exists(const std::string& name) { return dir_.Exists(name); }

  RunResult Run(const std::string& args) {
    std::string cmd = "cd '" + dir_.str() + "' && '" KX_BINARY "' " + args + " 2>&1";
    RunResult r;
    FILE* pipe = popen(cmd.c_str(), "r");
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) r.out.append(buf, n);
    int rc = pclose(pipe);
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return r;
  }

  kx::testing::ScratchDir dir_{"kx_cycle"};
};

}  // namespace kx::driver

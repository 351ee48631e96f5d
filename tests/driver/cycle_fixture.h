// The program run as a user runs it: in a fresh working directory, with its output, exit
// status and the files it leaves there.
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/scratch_dir.h"

namespace kx::driver {

struct RunResult {
  int status = -1;
  std::string out;
  bool Has(const std::string& s) const { return out.find(s) != std::string::npos; }
};

// Runs the program in `dir` with `args`; `shell` runs before it in the same shell.
inline RunResult RunIn(const kx::testing::ScratchDir& dir, const std::string& args,
                       const std::string& shell = "true") {
  std::string cmd =
      "cd '" + dir.str() + "' && " + shell + " && '" KX_BINARY "' " + args + " 2>&1";
  RunResult r;
  FILE* pipe = popen(cmd.c_str(), "r");
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) r.out.append(buf, n);
  int rc = pclose(pipe);
  r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return r;
}

class CycleTest : public ::testing::Test {
 protected:
  void Write(const std::string& name, const std::string& text) { dir_.Write(name, text); }
  std::string Read(const std::string& name) { return dir_.Read(name); }
  bool Exists(const std::string& name) { return dir_.Exists(name); }
  // Copies the files of the bundled tank example into the working directory.
  void CopyTankExample() {
    for (const char* f : {"tank.zpm", "tank.csv", "tank.info", "tank.dbs"})
      Write(f, kx::testing::ReadFile(std::string(KX_SOURCE_DIR) + "/examples/tank/" + f));
  }

  // `shell` runs before the program in the same shell (e.g. a ulimit).
  RunResult Run(const std::string& args, const std::string& shell = "true") {
    return RunIn(dir_, args, shell);
  }

  kx::testing::ScratchDir dir_{"kx_cycle"};
};

// Model "app" with the given sections, declarations and equations one a line; an empty
// section is left out.
inline std::string AppModel(const std::string& variables, const std::string& equations,
                            const std::string& parameters = "") {
  auto section = [](const std::string& name, const std::string& body) {
    return body.empty() ? "" : name + "\n" + body + "\nEnd " + name + "\n";
  };
  return "Model app\n" + section("Parameters", parameters) + section("Variables", variables) +
         section("Equations", equations) + "End Model\n";
}

// The value of KEY in a written DBS text ("KEY VALUE" lines); NaN when it is missing.
inline double DbsValue(const std::string& dbs, const std::string& key) {
  const std::string text = "\n" + dbs;
  const size_t at = text.find("\n" + key + " ");
  return at == std::string::npos ? std::nan("") : std::stod(text.substr(at + key.size() + 2));
}

// The cells of a CSV text, a row a line (the header line first).
inline std::vector<std::vector<std::string>> Cells(const std::string& csv) {
  std::vector<std::vector<std::string>> rows;
  std::stringstream in(csv);
  for (std::string line; std::getline(in, line);) {
    std::stringstream cells(line);
    rows.emplace_back();
    for (std::string cell; std::getline(cells, cell, ',');) rows.back().push_back(cell);
  }
  return rows;
}

// Column NAME of a CSV text with a header line: one value per data row.
inline std::vector<double> Column(const std::string& csv, const std::string& name) {
  const std::vector<std::vector<std::string>> rows = Cells(csv);
  std::vector<double> values;
  if (rows.empty()) return values;
  const size_t c = std::find(rows[0].begin(), rows[0].end(), name) - rows[0].begin();
  for (size_t r = 1; r < rows.size(); ++r) values.push_back(std::stod(rows[r].at(c)));
  return values;
}

}  // namespace kx::driver

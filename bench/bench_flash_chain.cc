// A chain of flash drums built from objects and solved end to end by the kestrix process.
//
//   bench_flash_chain [--repeat R] [N ...]        (default R = 3, chains N = 10 30 100)
//   bench_flash_chain --expand-only N             (prints the seconds of one expansion)
//
// The flowsheet: a feed of 10 mol/s of ten hydrocarbons (equal mole fractions, liquid at
// 320 K) enters flash 1; the liquid of flash k feeds flash k+1; flash k runs at 350 + 0.4 k K
// and 1 atm, so every drum boils off a little more of the heavier liquid. Each flash expands to
// 27 equations with 10 compounds. The cycle is a steady-state simulation (IMODE 1) with the
// block presolve (REDUCE 2), which solves the drums in flow order before the full solve.
//
// Per chain length: the process wall time, the model front end's phases (the "(sec):" lines
// it prints at DIAGLEVEL 1), the timer table, and the object expansion alone, timed on the same
// model text in a fresh process of this program (`--expand-only N`), as kestrix expands it once
// per run (objects::ExpandObjects runs inside the front end's "Determine model size" phase),
// with its share of the whole cycle. The best of R runs is kept for each figure.
// Checks: the cycle succeeds and the chain's liquid leaves with less than the feed.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/report.h"
#include "lang/compiler.h"
#include "lang/model_file.h"
#include "objects/expander.h"
#include "process_bench.h"
#include "testing/scratch_dir.h"

namespace kx::bench {
namespace {

constexpr const char* kCompounds =
    "n-pentane, isopentane, n-hexane, n-heptane, n-octane, benzene, toluene, ethylbenzene, "
    "o-xylene, m-xylene";
constexpr int kNumCompounds = 10;

std::string ChainModel(int n) {
  std::ostringstream m;
  m << "Model chain\nCompounds\n  " << kCompounds << "\nEnd Compounds\nObjects\n"
    << "  src = feed(flow=10, temp=320)\n";
  for (int k = 1; k <= n; ++k) m << fmt::format("  fl{} = flash(temp={})\n", k, 350 + 0.4 * k);
  m << "End Objects\nConnections\n";
  for (int i = 1; i <= kNumCompounds; ++i) m << fmt::format("  src.comp[{}] = 0.1\n", i);
  m << fmt::format("  src.f = fl1.fin\n  src.x[1:{0}] = fl1.zin[1:{0}]\n  src.h = fl1.hin\n",
                   kNumCompounds);
  for (int k = 1; k < n; ++k) {
    m << fmt::format(
        "  fl{0}.fl = fl{1}.fin\n  fl{0}.x[1:{2}] = fl{1}.zin[1:{2}]\n"
        "  fl{0}.hl = fl{1}.hin\n",
        k, k + 1, kNumCompounds);
  }
  m << "End Connections\nEnd Model\n";
  return m.str();
}

constexpr const char* kSettings = "ZPM.IMODE = 1\nZPM.REDUCE = 2\nZPM.DIAGLEVEL = 1\n";

// The front end's phase lines: "Read model file (sec):   0.000183" and the like.
std::vector<std::pair<std::string, double>> ReadPhaseLines(const std::string& console) {
  std::vector<std::pair<std::string, double>> phases;
  std::istringstream in(console);
  for (std::string line; std::getline(in, line);) {
    const size_t at = line.find("(sec):");
    if (at == std::string::npos) continue;
    phases.emplace_back(line.substr(0, at - 1), std::atof(line.c_str() + at + 6));
  }
  return phases;
}

// Seconds of objects::ExpandObjects on `text`, read and with its constants evaluated as the
// front end does it.
double TimeExpansion(const std::string& text, const std::string& dir) {
  // Runs once per process: the compound texts are cached across objects of one run.
  lang::Compiler compiler;
  lang::ModelFileReader reader(&compiler, {0, dir});
  reader.ReadText(text);
  reader.InitializeConstants();
  const Clock::time_point start = Clock::now();
  objects::ExpandObjects(&reader, {dir, 0});
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct ChainResult {
  int flashes = 0;
  double wall = INFINITY;                              // best process wall time, s
  double expansion = INFINITY;                         // best in-process expansion time, s
  std::vector<std::pair<std::string, double>> phases;  // of the best run
  std::map<std::string, double> timers;                // of the best run
  bool solved = true;
  double liquid_out = NAN;  // mol/s leaving the last drum
};

double LastLiquid(const std::string& results, int n) {
  std::istringstream in(results);
  std::string head, row;
  std::getline(in, head);
  std::getline(in, row);
  std::istringstream h(head), r(row);
  const std::string want = fmt::format("fl{}.fl", n);
  for (std::string name, cell; std::getline(h, name, ',') && std::getline(r, cell, ',');) {
    if (name == want) return std::atof(cell.c_str());
  }
  return NAN;
}

ChainResult MeasureChain(int n, int repeat) {
  ChainResult c;
  c.flashes = n;
  testing::WorkingDir dir("kx_bench_flash_chain");
  const std::string model = ChainModel(n);
  for (int r = 0; r < repeat; ++r) {
    WriteText("chain.zpm", model);
    WriteText("chain.dbs", kSettings);
    const ProcessRun run = RunProcess({KestrixPath(), "chain"}, "console.txt");
    const std::string console = ReadText("console.txt");
    c.solved =
        c.solved && run.status == 1 && console.find("Successful solution") != std::string::npos;
    if (run.seconds < c.wall) {
      c.wall = run.seconds;
      c.phases = ReadPhaseLines(console);
      c.timers = ReadTimerTable(console, false);
    }
    c.liquid_out = LastLiquid(ReadText("results.csv"), n);
    RunProcess({SelfPath(), "--expand-only", std::to_string(n)}, "expand.txt");
    c.expansion = std::min(c.expansion, std::atof(ReadText("expand.txt").c_str()));
  }
  return c;
}

void PrintChain(const ChainResult& c) {
  Sayf("--- {} flash drums ({} compounds): {}, liquid out {:.4f} mol/s of 10", c.flashes,
       kNumCompounds, c.solved ? "solved" : "NOT SOLVED", c.liquid_out);
  Sayf("{:<46} {:>10}", "front end phase", "s");
  for (const auto& [name, s] : c.phases) Sayf("{:<46} {:>10.6f}", name, s);
  Sayf("{:<46} {:>10}", "timer", "wall s");
  for (const char* t : {"Total", "Model build", "Model reduction", "Presolve", "Solver"}) {
    auto it = c.timers.find(t);
    if (it != c.timers.end()) Sayf("{:<46} {:>10.4f}", t, it->second);
  }
  Sayf("{:<46} {:>10.6f}", "object expansion (a process of its own)", c.expansion);
  Sayf("{:<46} {:>10.4f}", "process wall", c.wall);
  const double total = c.timers.count("Total") ? c.timers.at("Total") : c.wall;
  Sayf("object expansion share of the cycle: {:.1f}%", 100 * c.expansion / total);
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  int repeat = 3;
  std::vector<int> chains;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--expand-only" && i + 1 < argc) {
      const int n = std::max(1, std::atoi(argv[i + 1]));
      kx::Sayf("{:.9f}", kx::bench::TimeExpansion(kx::bench::ChainModel(n), "."));
      return 0;
    }
    if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else if (std::atoi(arg.c_str()) > 0) {
      chains.push_back(std::atoi(arg.c_str()));
    } else {
      kx::Sayf("usage: {} [--repeat R] [N ...]", argv[0]);
      return 2;
    }
  }
  if (chains.empty()) chains = {10, 30, 100};
  bool all_solved = true;
  for (int n : chains) {
    const kx::bench::ChainResult c = kx::bench::MeasureChain(n, repeat);
    kx::bench::PrintChain(c);
    all_solved = all_solved && c.solved && c.liquid_out > 0 && c.liquid_out < 10;
  }
  return all_solved ? 0 : 1;
}

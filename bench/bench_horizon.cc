// Cost of laying a stiff nonlinear DAE (a cooled stirred-tank reactor: concentration and
// temperature balances, rate and heat-generation algebraic equations) over a horizon of N
// steps with NODES = 3. Google Benchmark times, for each N:
//   BM_Replicate/N    replication of the built model over the grid (records, column maps,
//                     collocation rows, links)
//   BM_Structures/N   layout, reduced-space Jacobian and Hessian patterns of the replicated
//                     model, from scratch
// Before the timed runs, each N (ascending) is replicated once with its structures and the
// growth of the process's peak resident memory (getrusage) over the start is recorded. The
// table gives the times, the memory and their ratios per tenfold increase of N: linear
// growth shows ratios near 10.
//
// Usage: bench_horizon [--quick] [N ...] [--benchmark_...]     (default N = 100, 1000, 10000)
#include <sys/resource.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.h"
#include "reactor_model.h"
#include "horizon/horizon.h"
#include "model/access.h"
#include "model/builder.h"

namespace kx::bench {
namespace {

constexpr int kNodes = 3;
constexpr double kStepLength = 0.05;


const model::ModelStore& Reactor() {
  static const model::ModelStore store = [] {
    OutputCapture quiet;
    return model::BuildModelFromText(kReactorModel, {});
  }();
  return store;
}

horizon::TimeGrid Grid(int steps) {
  horizon::TimeGrid g;
  g.nodes = kNodes;
  g.positions = horizon::LobattoPositions(kNodes);
  g.dt.assign(steps, kStepLength);
  g.times.assign(steps * (kNodes - 1) + 1, 0.0);
  return g;
}

struct HorizonCase {
  explicit HorizonCase(int n)
      : grid(Grid(n)), h(horizon::Replicate(Reactor(), grid, nullptr, 0)) {}
  horizon::TimeGrid grid;
  horizon::Horizon h;
};

void BM_Replicate(benchmark::State& state) {
  HorizonCase& c = CaseFor<HorizonCase>(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    horizon::Horizon h = horizon::Replicate(Reactor(), c.grid, nullptr, 0);
    benchmark::DoNotOptimize(h.store.eqns.data());
  }
}

void BM_Structures(benchmark::State& state) {
  HorizonCase& c = CaseFor<HorizonCase>(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    model::ModelAccess access(c.h.store);
    int nnz = access.Jacobian(model::Shape::kReduced).nnz() +
              access.Hessian(model::Shape::kReduced).nnz();
    benchmark::DoNotOptimize(nnz);
  }
}

long PeakKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// Growth of the peak resident memory over the start, per size, measured in ascending order.
std::map<int, double> MeasureMemory(std::vector<int> sizes) {
  std::sort(sizes.begin(), sizes.end());
  Reactor();
  long start = PeakKilobytes();
  std::map<int, double> megabytes;
  for (int n : sizes) {
    {
      horizon::TimeGrid grid = Grid(n);
      horizon::Horizon h = horizon::Replicate(Reactor(), grid, nullptr, 0);
      model::ModelAccess access(h.store);
      access.Jacobian(model::Shape::kReduced);
      access.Hessian(model::Shape::kReduced);
    }
    megabytes[n] = (PeakKilobytes() - start) / 1024.0;
  }
  return megabytes;
}

std::map<int, double> g_memory;  // peak memory growth per size, MB

void PrintSize(int n, const RunKeeper& runs) {
  static int previous = 0;
  auto t = [&](const char* family, int size) { return runs.Seconds(SizedName(family, size)); };
  auto ratio = [&](double now, double before) {
    if (previous == 0 || !(before > 0)) return std::string("     -");
    return fmt::format("{:6.2f}", now / before);
  };
  HorizonCase& c = CaseFor<HorizonCase>(n);
  double rep = t("BM_Replicate", n), st = t("BM_Structures", n);
  double mem = g_memory.count(n) ? g_memory[n] : std::nan("");
  Sayf("steps {:>6}  variables {:>8}  equations {:>8}", n, c.h.store.nvar, c.h.store.eqns.size());
  Sayf("     replication {:10.3f} ms  ratio {}", 1e3 * rep,
       ratio(rep, t("BM_Replicate", previous)));
  Sayf("     structures  {:10.3f} ms  ratio {}", 1e3 * st,
       ratio(st, t("BM_Structures", previous)));
  Sayf("     peak memory {:10.1f} MB  ratio {}", mem,
       ratio(mem, g_memory.count(previous) ? g_memory[previous] : 0.0));
  previous = n;
}

// Sizes named on the command line (as the shared reader takes them), or the defaults.
std::vector<std::string> ArgsWithSizes(int argc, char** argv, std::vector<int>* sizes) {
  std::vector<std::string> args(argv, argv + argc);
  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view a = argv[i];
    int n = 0;
    auto [end, ec] = std::from_chars(a.data(), a.data() + a.size(), n);
    if (ec == std::errc() && end == a.data() + a.size()) sizes->push_back(n);
    quick = quick || a == "--quick";
  }
  if (sizes->empty()) {
    for (int n : {100, 1000, 10000}) {
      sizes->push_back(n);
      args.push_back(std::to_string(n));
    }
  }
  if (quick) std::erase_if(*sizes, [](int n) { return n > kQuickLargest; });
  return args;
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  using namespace kx::bench;
  std::vector<int> sizes;
  std::vector<std::string> args = ArgsWithSizes(argc, argv, &sizes);
  g_memory = MeasureMemory(sizes);
  std::vector<char*> arg_ptrs;
  for (std::string& a : args) arg_ptrs.push_back(a.data());
  return RunRatioBenchmark(static_cast<int>(arg_ptrs.size()), arg_ptrs.data(),
                           {{"BM_Replicate", BM_Replicate}, {"BM_Structures", BM_Structures}},
                           "Horizon replication of a stirred-tank reactor, NODES = 3 (fastest "
                           "repetition above; ratios per tenfold step increase)",
                           PrintSize);
}

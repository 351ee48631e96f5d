// Object expansion cost: building a model of N first-order lags and PI controllers declared
// as objects against the same model written out by hand as plain statements (the statements
// the objects expand to, with the same names). Prints, per N, the best of three build times
// of each text, their ratio (objects / plain; 1.00 = expansion costs nothing) and the growth
// of the object build per object against the previous N (1.00 = linear).
//
// Usage: bench_objects [--quick] [N ...]      (default N = 1000, 10000, 100000; --quick drops
// the sizes above 10000)
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/report.h"
#include "model/builder.h"

namespace kx::bench {
namespace {

// N loops: a controller c_k reads the lag f_k and drives its input.
std::string ObjectModel(int n) {
  std::string s = "Objects\n";
  for (int k = 1; k <= n; ++k)
    s += fmt::format(" f{0} = lag(tau=2)\n c{0} = pid(kc=0.5, taui=3)\n", k);
  s += "End Objects\nConnections\n";
  for (int k = 1; k <= n; ++k) s += fmt::format(" c{0}.pv = f{0}.y\n c{0}.op = f{0}.u\n", k);
  s += "End Connections\nEquations\n";
  for (int k = 1; k <= n; ++k) s += fmt::format(" c{0}.sp = 1\n", k);
  return s + "End Equations\n";
}

std::string PlainModel(int n) {
  std::string par = "Parameters\n", var = "Variables\n", eqs = "Equations\n", con = "Connections\n";
  for (int k = 1; k <= n; ++k) {
    par += fmt::format(
        " f{0}.tau = 2\n f{0}.k = 1\n c{0}.kc = 0.5\n c{0}.taui = 3\n c{0}.taud = 0\n"
        " c{0}.n_d = 10\n c{0}.bias = 0\n c{0}.op_hi = 100\n c{0}.op_lo = 0\n",
        k);
    var += fmt::format(
        " f{0}.u\n f{0}.y\n c{0}.pv\n c{0}.sp\n c{0}.e\n c{0}.ie\n c{0}.op_u\n c{0}.op\n", k);
    eqs += fmt::format(
        " f{0}.tau*$f{0}.y = f{0}.k*f{0}.u - f{0}.y\n c{0}.e = c{0}.sp - c{0}.pv\n"
        " c{0}.op_u = c{0}.bias + c{0}.kc*(c{0}.e + c{0}.ie/c{0}.taui)\n"
        " c{0}.op = ((c{0}.op_u + c{0}.op_lo + abs(c{0}.op_u - c{0}.op_lo))/2 + c{0}.op_hi - "
        "abs((c{0}.op_u + c{0}.op_lo + abs(c{0}.op_u - c{0}.op_lo))/2 - c{0}.op_hi))/2\n"
        " $c{0}.ie = c{0}.e + (c{0}.op - c{0}.op_u)/c{0}.kc\n c{0}.sp = 1\n",
        k);
    con += fmt::format(" c{0}.pv = f{0}.y\n c{0}.op = f{0}.u\n", k);
  }
  return par + "End Parameters\n" + var + "End Variables\n" + eqs + "End Equations\n" + con +
         "End Connections\n";
}

// Best of three builds, seconds; -1 when the build stops.
double BestBuild(const std::string& text, size_t* vars) {
  double best = 1e300;
  for (int rep = 0; rep < 3; ++rep) {
    OutputCapture quiet;
    const auto start = std::chrono::steady_clock::now();
    try {
      model::ModelStore store =
          model::BuildModelFromText(text, {.max_memory = 6, .work_dir = "/tmp"});
      *vars = store.vars.size();
    } catch (const Stop&) {
      return -1;
    }
    best = std::min(
        best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  std::vector<int> sizes;
  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      quick = true;
    } else {
      sizes.push_back(std::atoi(argv[i]));
    }
  }
  if (sizes.empty()) sizes = {1000, 10000, 100000};
  std::printf("%10s %14s %14s %8s %8s %10s\n", "objects", "objects (s)", "plain (s)", "ratio",
              "growth", "records");
  double previous = 0;
  int previous_n = 0;
  for (int n : sizes) {
    if (quick && n > 10000) continue;
    size_t vo = 0, vp = 0;
    const double t_obj = kx::bench::BestBuild(kx::bench::ObjectModel(n), &vo);
    const double t_plain = kx::bench::BestBuild(kx::bench::PlainModel(n), &vp);
    if (t_obj < 0 || t_plain < 0 || vo != vp) {
      std::printf("%10d build stopped or the two models differ (%zu vs %zu records)\n", 2 * n, vo,
                  vp);
      return 1;
    }
    const double growth = previous > 0 ? (t_obj / n) / (previous / previous_n) : 1.0;
    std::printf("%10d %14.4f %14.4f %8.2f %8.2f %10zu\n", 2 * n, t_obj, t_plain, t_obj / t_plain,
                growth, vo);
    previous = t_obj;
    previous_n = n;
  }
  return 0;
}

// Front-end scaling: time and peak memory to read, check, compile and differentiate generated
// models of N equations (N = 1e3, 1e4, 1e5). Google Benchmark times BM_BuildModel/N, one
// BuildModelFromText of the model text (the text is generated outside the timing, and each
// built model is freed outside it too).
//
// Each N runs in a child process forked for it, so that the child's peak resident size
// (ru_maxrss, read by wait4) belongs to that N alone; the child runs only BM_BuildModel/N and
// sends its figures back through a pipe. The table printed at the end gives, per N, the build
// time, the time per equation and its growth against the previous N (1.00 = linear), the
// peak resident size, the text size and the instruction count.
//
// Usage: bench_parse [--quick] [N ...] [--benchmark_...]      (--quick skips N = 100000)
// Sizes are chosen with N or --quick: each child sets its own benchmark filter.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "base/report.h"
#include "bench_util.h"
#include "model/builder.h"
#include "model_gen.h"

namespace kx::bench {
namespace {

constexpr uint64_t kModelSeed = 12345;
constexpr const char* kFamily = "BM_BuildModel";

// What a child sends back; plain data, written through the pipe as bytes.
struct Figures {
  double build_seconds = 0;  // fastest build, seconds
  long text_bytes = 0;       // size of the model text
  long instructions = 0;     // byte-code instructions of all equations (all three segments)
};

// Filled by BM_BuildModel in the child for its one size.
Figures& ChildFigures() {
  static Figures figures;
  return figures;
}

void BM_BuildModel(benchmark::State& state) {
  const std::string text = GenerateModel(static_cast<int>(state.range(0)), kModelSeed).ModelText();
  model::BuildOptions options;
  options.work_dir = "/tmp";
  OutputCapture quiet;  // the builder's own messages are not part of the benchmark output
  long instructions = 0;
  for (auto _ : state) {
    std::unique_ptr<model::ModelStore> store;
    try {
      store = std::make_unique<model::ModelStore>(model::BuildModelFromText(text, options));
    } catch (const Stop&) {
      state.SkipWithError("the model build stopped");
      break;
    }
    state.PauseTiming();
    instructions = 0;
    for (const auto& p : store->programs) instructions += p.work_size();
    store.reset();
    state.ResumeTiming();
  }
  ChildFigures().text_bytes = static_cast<long>(text.size());
  ChildFigures().instructions = instructions;
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Child side: runs BM_BuildModel/n only, writes the figures to fd, never returns.
[[noreturn]] void RunChild(int n, bool first, size_t name_width, int fd) {
  RunKeeper runs(first, name_width);
  benchmark::RunSpecifiedBenchmarks(&runs, fmt::format("^{}/{}$", kFamily, n));
  Figures& f = ChildFigures();
  f.build_seconds = runs.Seconds(SizedName(kFamily, n));
  FlushOutput();
  const bool sent = !std::isnan(f.build_seconds) &&
                    write(fd, &f, sizeof f) == static_cast<ssize_t>(sizeof f);
  _exit(sent ? 0 : 2);
}

struct Measured {
  int n = 0;
  Figures figures;
  double peak_mb = 0;  // the child's peak resident size
};

// Runs one N in a child; returns false when the child failed.
// name_width: width of the longest benchmark name of the whole run.
bool Measure(int n, bool first, size_t name_width, Measured* out) {
  int fd[2];
  if (pipe(fd) != 0) return false;
  FlushOutput();  // nothing buffered may be printed twice by the child
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    close(fd[0]);
    RunChild(n, first, name_width, fd[1]);
  }
  close(fd[1]);
  out->n = n;
  const bool ok = read(fd[0], &out->figures, sizeof out->figures) ==
                  static_cast<ssize_t>(sizeof out->figures);
  close(fd[0]);
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  out->peak_mb = usage.ru_maxrss / 1024.0;
  return ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

double OwnPeakMb() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024.0;
}

void PrintTable(const std::vector<Measured>& rows, double parent_mb) {
  Say("");
  Say("Front end: parse + compile + derivatives of a generated model (fastest repetition)");
  Sayf("{:>9} {:>12} {:>10} {:>8} {:>12} {:>12} {:>14}", "N", "build (s)", "us/eqn", "growth",
       "peak (MB)", "text (MB)", "instructions");
  for (size_t i = 0; i < rows.size(); ++i) {
    const Measured& r = rows[i];
    const double per_eqn = r.figures.build_seconds / r.n;
    std::string growth = "-";
    if (i > 0) {
      const Measured& p = rows[i - 1];
      growth = fmt::format("{:.2f}", per_eqn / (p.figures.build_seconds / p.n));
    }
    Sayf("{:>9} {:>12.3f} {:>10.1f} {:>8} {:>12.1f} {:>12.1f} {:>14}", r.n,
         r.figures.build_seconds, 1e6 * per_eqn, growth, r.peak_mb,
         r.figures.text_bytes / 1048576.0, r.figures.instructions);
  }
  Say("growth: time per equation against the row above.");
  Sayf("peak: ru_maxrss of the child process of that N, which starts from the {:.1f} MB the "
       "benchmark process holds when it forks.",
       parent_mb);
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  using namespace kx::bench;
  const std::vector<int> sizes = ReadCommandLine(argc, argv);
  if (sizes.empty()) return 2;
  for (int n : sizes) RegisterSized(kFamily, BM_BuildModel, n);
  size_t name_width = 0;
  for (int n : sizes) name_width = std::max(name_width, SizedName(kFamily, n).size());
  const double parent_mb = OwnPeakMb();
  std::vector<Measured> rows;
  for (int n : sizes) {
    Measured m;
    if (!Measure(n, rows.empty(), name_width, &m)) {
      kx::Sayf("{:>9} failed", n);
      return 1;
    }
    rows.push_back(m);
  }
  PrintTable(rows, parent_mb);
  return 0;
}

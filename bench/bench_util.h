// What the benchmarks share: the size list and its command line, the name resolver of the
// generated model family, and a console reporter that keeps each benchmark's best
// per-iteration time so that main() can print ratio tables after Google Benchmark has run.
//
// Every benchmark executable is called as
//   bench_X [--quick] [N ...] [--benchmark_...]
// --quick drops the sizes above 10000; explicit N replace the default sizes 1e3, 1e4, 1e5.
// Each timed benchmark is repeated (three times unless --benchmark_repetitions says otherwise)
// and the tables use the fastest repetition. Google Benchmark's own flags work as usual.
#pragma once

#include <algorithm>
#include <charconv>
#include <cmath>
#include <initializer_list>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/report.h"
#include "lang/compiler.h"
#include "model_gen.h"

namespace kx::bench {

// The case of size n (model, compiled programs, scratch), built on first use and kept for the
// run, so that every benchmark of one size measures the same data.
template <typename Case>
Case& CaseFor(int n) {
  static std::map<int, std::unique_ptr<Case>> cases;
  auto& c = cases[n];
  if (!c) c = std::make_unique<Case>(n);
  return *c;
}

inline constexpr int kDefaultSizes[] = {1000, 10000, 100000};
inline constexpr int kQuickLargest = 10000;  // --quick keeps sizes up to this one
inline constexpr int kSmallestSize = 50;     // GenerateModel needs n >= 50

// Google Benchmark settings used unless the command line gives its own: short timing windows
// repeated three times, so one whole run stays well under a minute on two cores.
inline constexpr const char* kDefaultFlags[] = {"--benchmark_min_time=0.2",
                                                "--benchmark_repetitions=3"};

// Resolves the names of the generated model's residual texts: x[i] is column i, q[j] is
// intermediate j-1 (j = 1..num_q), `half` is the model constant.
inline lang::Resolver GeneratedNames(int num_q) {
  return [num_q](std::string_view name, bool) {
    lang::Symbol s;
    if (name == "half") {
      s.kind = lang::Symbol::Kind::kConstant;
      s.value = kHalf;
      return s;
    }
    int index = 0;
    std::from_chars(name.data() + 2, name.data() + name.size() - 1, index);
    if (name[0] == 'x') {
      s.kind = lang::Symbol::Kind::kColumn;
      s.column = index;
    } else if (name[0] == 'q' && index >= 1 && index <= num_q) {
      s.kind = lang::Symbol::Kind::kIntermediate;
      s.intermediate = index - 1;
    }
    return s;
  };
}

// The benchmark name of `family` at size n, as Google Benchmark prints it ("BM_X/1000").
inline std::string SizedName(std::string_view family, int n) {
  return fmt::format("{}/{}", family, n);
}

// Reads the sizes and hands the Google Benchmark flags to the library. Returns the sizes to
// run, or an empty list after printing why the command line was refused.
inline std::vector<int> ReadCommandLine(int argc, char** argv) {
  std::vector<char*> gb_args = {argv[0]};
  for (const char* flag : kDefaultFlags) gb_args.push_back(const_cast<char*>(flag));
  bool quick = false;
  std::vector<int> sizes;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    int n = 0;
    const auto [end, ec] = std::from_chars(arg.data(), arg.data() + arg.size(), n);
    if (arg == "--quick") {
      quick = true;
    } else if (ec == std::errc() && end == arg.data() + arg.size()) {
      if (n < kSmallestSize) {
        Sayf("size {} is below the smallest generated model ({})", n, kSmallestSize);
        return {};
      }
      sizes.push_back(n);
    } else {
      gb_args.push_back(argv[i]);
    }
  }
  int gb_argc = static_cast<int>(gb_args.size());
  gb_args.push_back(nullptr);
  benchmark::Initialize(&gb_argc, gb_args.data());
  if (gb_argc > 1) {
    Sayf("unknown argument {}; usage: {} [--quick] [N ...] [--benchmark_...]", gb_args[1],
         argv[0]);
    return {};
  }
  if (sizes.empty()) sizes.assign(std::begin(kDefaultSizes), std::end(kDefaultSizes));
  if (quick) std::erase_if(sizes, [](int n) { return n > kQuickLargest; });
  if (sizes.empty()) Sayf("no size up to {} left to run with --quick", kQuickLargest);
  return sizes;
}

// Registers fn as `family`/n, timed in microseconds.
inline benchmark::internal::Benchmark* RegisterSized(const char* family,
                                                     void (*fn)(benchmark::State&), int n) {
  return benchmark::RegisterBenchmark(family, fn)->Arg(n)->Unit(benchmark::kMicrosecond);
}

// Google Benchmark's console table, sent through Say(), showing one line per benchmark (its
// fastest repetition) and any error. Keeps the fastest per-iteration wall time of every
// benchmark for the tables printed after the run.
class RunKeeper : public benchmark::ConsoleReporter {
 public:
  // print_opening: whether to print the machine description and the column header (a run
  // split over several processes prints them once). name_width: the width of the name column
  // (0: as Google Benchmark finds it), so that the tables of several processes line up.
  explicit RunKeeper(bool print_opening = true, size_t name_width = 0)
      : ConsoleReporter(OO_Tabular), print_opening_(print_opening), name_width_(name_width) {
    SetOutputStream(&buffer_);
    SetErrorStream(&buffer_);
  }

  bool ReportContext(const Context& context) override {
    const bool ok = ConsoleReporter::ReportContext(context);
    if (name_width_ > 0) name_field_width_ = name_width_;
    if (!print_opening_) buffer_.str("");
    Forward();
    return ok;
  }

  // Google Benchmark hands over all repetitions of one benchmark together, then their
  // aggregates; the console shows the fastest repetition and any error.
  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;
    for (const Run& run : runs) {
      if (run.error_occurred) {
        shown.push_back(run);
      } else if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        const bool fastest = Keep(run);
        if (shown.empty() || shown.back().error_occurred) shown.push_back(run);
        else if (fastest) shown.back() = run;
      }
    }
    ConsoleReporter::ReportRuns(shown);
    Forward();
  }

  void PrintHeader(const Run& run) override {
    if (print_opening_) ConsoleReporter::PrintHeader(run);
  }

  // Whether `name` ("BM_X/1000") ran without error.
  bool Has(const std::string& name) const { return best_.count(name) > 0; }

  // Fastest per-iteration wall time of `name`, in seconds (NaN if it did not run).
  double Seconds(const std::string& name) const {
    const auto it = best_.find(name);
    return it == best_.end() ? std::nan("") : it->second;
  }

 private:
  // Records the run's time per iteration; returns whether it is the fastest so far.
  bool Keep(const Run& run) {
    const std::string name = run.run_name.function_name + "/" + run.run_name.args;
    const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
    const auto [it, added] = best_.emplace(name, seconds);
    if (added || seconds < it->second) {
      it->second = seconds;
      return true;
    }
    return false;
  }

  // Sends the complete lines buffered so far through Say().
  void Forward() {
    std::string text = buffer_.str();
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
      Say(std::string_view(text).substr(start, end - start));
    }
    buffer_.str(text.substr(start));
    buffer_.seekp(0, std::ios::end);
    FlushOutput();
  }

  bool print_opening_;                // print the machine description and column header
  size_t name_width_;                 // width of the name column; 0: Google Benchmark's
  std::ostringstream buffer_;         // console text not yet sent to Say()
  std::map<std::string, double> best_;  // benchmark name -> fastest seconds per iteration
};

// The main of a ratio benchmark: reads the sizes, registers `families` (name and benchmark
// function) for each size, runs them, then prints `title` and one table block per size.
inline int RunRatioBenchmark(
    int argc, char** argv,
    std::initializer_list<std::pair<const char*, void (*)(benchmark::State&)>> families,
    std::string_view title, void (*print_size)(int n, const RunKeeper& runs)) {
  const std::vector<int> sizes = ReadCommandLine(argc, argv);
  if (sizes.empty()) return 2;
  for (int n : sizes)
    for (const auto& [name, fn] : families) RegisterSized(name, fn, n);
  RunKeeper runs;
  benchmark::RunSpecifiedBenchmarks(&runs);
  benchmark::Shutdown();
  Say("");
  Say(title);
  for (int n : sizes) print_size(n, runs);
  return 0;
}

}  // namespace kx::bench

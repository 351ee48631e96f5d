// Front-end scaling by model shape: the time and peak memory to build (read, expand, connect,
// compile and evaluate the starting point of) generated models of N elements, for shapes that
// stress one pass each:
//   chain        s[1] = x, s[k] = s[k-1] + 1 for k = 2..N: intermediates reading intermediates
//   vectors      x[1:N], v[1:N] = x[1:N]^2 and one equation per element: vector expansion
//   connections  a[1:N], b[1:N] and N connections a[k] = b[k]: the connection pass
//   merges       a[1:N] joined by connections a[k+1] = a[k] in chains of 1000: merge chains
// Each build runs in a forked child so that its peak resident size (ru_maxrss) is its own;
// every size is built three times and the fastest time is kept (the machine is shared).
// The table gives, per shape and N, the build seconds, the growth of the time per element
// against the previous N (1.00 = linear, 10 = quadratic) and the peak resident size.
//
// Usage: bench_frontend_scale [N ...]        (default N: 1000 10000 100000)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "base/report.h"
#include "model/builder.h"

namespace kx::bench {
namespace {

std::string ChainModel(long n) {
  return fmt::format(
      "Model chain\n  Variables\n    x = 1\n  End Variables\n  Intermediates\n    s[1] = x\n"
      "    s[2:{}] = s[1:{}] + 1\n  End Intermediates\n  Equations\n    x + s[{}] = {}\n"
      "  End Equations\nEnd Model\n",
      n, n - 1, n, n);
}

std::string VectorModel(long n) {
  return fmt::format(
      "Model vectors\n  Variables\n    x[1:{0}] = 1, >= 0\n  End Variables\n  Intermediates\n"
      "    v[1:{0}] = x[1:{0}]^2\n  End Intermediates\n  Equations\n    v[1:{0}] + x[1:{0}] = 2\n"
      "  End Equations\nEnd Model\n",
      n);
}

std::string ConnectionModel(long n) {
  return fmt::format(
      "Model connections\n  Variables\n    a[1:{0}] = 1\n    b[1:{0}] = 2\n  End Variables\n"
      "  Connections\n    a[1:{0}] = b[1:{0}]\n  End Connections\n  Equations\n"
      "    a[1:{0}] = 3\n  End Equations\nEnd Model\n",
      n);
}

std::string MergeChainModel(long n) {
  constexpr long kChain = 1000;
  std::string connections;
  for (long first = 1; first + 1 <= n; first += kChain) {
    const long last = std::min(n, first + kChain - 1);
    if (last > first)
      connections += fmt::format("    a[{}:{}] = a[{}:{}]\n", first + 1, last, first, last - 1);
  }
  return fmt::format(
      "Model merges\n  Variables\n    a[1:{0}] = 1\n  End Variables\n  Connections\n{1}"
      "  End Connections\n  Equations\n    a[1] = 3\n  End Equations\nEnd Model\n",
      n, connections);
}

struct Shape {
  const char* name;
  std::string (*text)(long n);
};

// Child: builds the model once and writes the build seconds to fd; never returns.
[[noreturn]] void BuildInChild(const std::string& text, int fd) {
  model::BuildOptions options;
  options.work_dir = "/tmp";
  options.max_memory = 6;
  double seconds = -1;
  {
    OutputCapture quiet;
    const auto start = std::chrono::steady_clock::now();
    try {
      model::ModelStore store = model::BuildModelFromText(text, options);
      seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    } catch (const Stop&) {
    }
  }
  const bool sent = write(fd, &seconds, sizeof seconds) == sizeof seconds;
  _exit(sent ? 0 : 1);
}

// Builds in a child; returns the seconds (negative when the build stopped) and the peak KB.
std::pair<double, long> Measure(const std::string& text) {
  int fds[2];
  if (pipe(fds) != 0) std::abort();
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    BuildInChild(text, fds[1]);
  }
  close(fds[1]);
  double seconds = -1;
  if (read(fds[0], &seconds, sizeof seconds) != sizeof seconds) seconds = -1;
  close(fds[0]);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  return {seconds, usage.ru_maxrss};
}

}  // namespace
}  // namespace kx::bench

int main(int argc, char** argv) {
  using namespace kx::bench;
  std::vector<long> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atol(argv[i]));
  if (sizes.empty()) sizes = {1000, 10000, 100000};
  const Shape shapes[] = {{"chain", ChainModel}, {"vectors", VectorModel},
                          {"connections", ConnectionModel}, {"merges", MergeChainModel}};
  std::printf("%-12s %10s %12s %14s %12s\n", "shape", "N", "build s", "growth/elem",
              "peak MB");
  for (const Shape& shape : shapes) {
    double previous_per_element = 0;
    for (long n : sizes) {
      const std::string text = shape.text(n);
      double seconds = -1;
      long peak_kb = 0;
      for (int repeat = 0; repeat < 3; ++repeat) {
        const auto [s, kb] = Measure(text);
        if (s >= 0 && (seconds < 0 || s < seconds)) seconds = s;
        peak_kb = std::max(peak_kb, kb);
      }
      const double per_element = seconds / static_cast<double>(n);
      const std::string growth =
          previous_per_element > 0 && seconds > 0
              ? fmt::format("{:.2f}", per_element / previous_per_element)
              : "-";
      std::printf("%-12s %10ld %12s %14s %12.1f\n", shape.name, n,
                  seconds < 0 ? "stopped" : fmt::format("{:.4f}", seconds).c_str(),
                  growth.c_str(), peak_kb / 1024.0);
      previous_per_element = seconds > 0 ? per_element : 0;
    }
  }
  return 0;
}

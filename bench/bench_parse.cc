// Front-end scaling: time and peak memory to read, check, compile and differentiate generated
// models of N equations (N = 1e3, 1e4, 1e5). Each N runs in a fresh child process so that its
// peak resident size (ru_maxrss of the child) is its own.
//
//   bench_parse [N ...]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/timers.h"
#include "model/builder.h"
#include "model_gen.h"

namespace {

struct Figures {
  double build_seconds = 0;
  long text_bytes = 0;
  long instructions = 0;
};

Figures RunOne(int n) {
  std::string text = kx::bench::GenerateModel(n, 12345).ModelText();
  Figures f;
  f.text_bytes = static_cast<long>(text.size());
  kx::OutputCapture quiet;
  kx::model::BuildOptions o;
  o.work_dir = "/tmp";
  auto start = std::chrono::steady_clock::now();
  kx::model::ModelStore s = kx::model::BuildModelFromText(text, o);
  f.build_seconds = kx::SecondsSince(start);
  for (const auto& p : s.programs) f.instructions += p.work_size();
  return f;
}

// Runs one N in a child; returns false when the child failed.
bool Measure(int n) {
  int fd[2];
  if (pipe(fd) != 0) return false;
  pid_t pid = fork();
  if (pid == 0) {
    close(fd[0]);
    Figures f = RunOne(n);
    if (write(fd[1], &f, sizeof f) != static_cast<ssize_t>(sizeof f)) _exit(2);
    _exit(0);
  }
  close(fd[1]);
  Figures f;
  bool ok = read(fd[0], &f, sizeof f) == static_cast<ssize_t>(sizeof f);
  close(fd[0]);
  int status = 0;
  struct rusage ru {};
  wait4(pid, &status, 0, &ru);
  if (!ok || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
  std::printf("%9d %12.3f %12.1f %12.1f %14ld %10.1f\n", n, f.build_seconds,
              ru.ru_maxrss / 1024.0, f.text_bytes / 1048576.0, f.instructions,
              1e6 * f.build_seconds / n);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> sizes = {1000, 10000, 100000};
  if (argc > 1) {
    sizes.clear();
    for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
  }
  std::printf("Front end: parse + compile + derivatives of a generated model\n");
  std::printf("%9s %12s %12s %12s %14s %10s\n", "N", "build (s)", "peak (MB)", "text (MB)",
              "instructions", "us/eqn");
  std::fflush(stdout);
  for (int n : sizes) {
    if (!Measure(n)) {
      std::printf("%9d failed\n", n);
      return 1;
    }
    std::fflush(stdout);
  }
  return 0;
}

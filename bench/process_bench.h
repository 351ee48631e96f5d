// What the whole-process benchmarks share (bench_mhe, bench_mpc): starting a program as its
// own process and timing it from spawn to exit, reading the timer table that `kestrix` prints
// at DIAGLEVEL 1 and the values it writes back to APP.dbs, and the library options of the
// engine's interior-point call, so that a hand-coded problem is solved under the same ones.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <cmath>
#include <cstdlib>
#include <coin/IpIpoptApplication.hpp>
#include <coin/IpTNLP.hpp>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/report.h"
#include "solvers/ipopt_call.h"

extern char** environ;

namespace kx::bench {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// One finished process: its wall time from spawn to exit, its processor time and its exit
// status. On a shared machine the processor time is the steadier figure.
struct ProcessRun {
  double seconds = -1;  // wall, negative when it could not be started
  double cpu = -1;      // user + system of the process
  int status = -1;      // exit status, -1 when it did not exit normally
  bool stopped = false;  // killed on reaching the time limit
  double peak_mb = -1;   // peak resident size of the process (ru_maxrss), MB
};

// Runs `argv` in the current directory with its standard output and error sent to `out`
// (created or truncated) and waits for it; with a `limit` (seconds, > 0) a watchdog kills it
// when it runs longer.
inline ProcessRun RunProcess(const std::vector<std::string>& argv, const std::string& out,
                             double limit = 0) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  ProcessRun run;
  pid_t pid = 0;
  const Clock::time_point start = Clock::now();
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return run;
  std::mutex mutex;
  std::condition_variable done;
  bool exited = false;
  std::thread watchdog;
  if (limit > 0) {
    watchdog = std::thread([&] {
      std::unique_lock<std::mutex> lock(mutex);
      if (!done.wait_for(lock, std::chrono::duration<double>(limit), [&] { return exited; })) {
        run.stopped = true;
        kill(pid, SIGKILL);  // not yet reaped: the id is still this child's
      }
    });
  }
  int wstatus = 0;
  rusage usage{};
  wait4(pid, &wstatus, 0, &usage);
  if (watchdog.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      exited = true;
    }
    done.notify_one();
    watchdog.join();
  }
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  auto sec = [](const timeval& t) { return static_cast<double>(t.tv_sec) + 1e-6 * t.tv_usec; };
  run.cpu = sec(usage.ru_utime) + sec(usage.ru_stime);
  run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  run.peak_mb = usage.ru_maxrss / 1024.0;
  return run;
}

// The `kestrix` executable next to the bench/ directory of this build.
inline std::string KestrixPath() {
  return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "kestrix").string();
}

inline std::string SelfPath() { return fs::read_symlink("/proc/self/exe").string(); }

inline std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

// Seconds per timer of the table printed at DIAGLEVEL 1 ("#  Timer  Calls  Wall  CPU" rows),
// by timer name: wall, or processor time when `cpu`.
inline std::map<std::string, double> ReadTimerTable(const std::string& console, bool cpu) {
  std::map<std::string, double> wall;
  std::istringstream in(console);
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (line.find("Timer") != std::string::npos && line.find("Wall") != std::string::npos) {
      inside = true;
      continue;
    }
    if (!inside || line.find("----") != std::string::npos) continue;
    // "<index> <name words> <calls> <wall> <cpu>"
    std::istringstream row(line);
    std::vector<std::string> words;
    for (std::string w; row >> w;) words.push_back(w);
    if (words.size() < 5) continue;
    std::string name = words[1];
    for (size_t i = 2; i + 3 < words.size(); ++i) name += " " + words[i];
    wall[name] = std::atof(words[words.size() - (cpu ? 1 : 2)].c_str());
  }
  return wall;
}

// The value of record `key` ("hx.NEWVAL") in a DBS file the engine wrote; NaN if absent.
inline double ReadDbsValue(const std::string& path, const std::string& key) {
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    std::istringstream row(line);
    std::string name;
    double value = 0;
    if (row >> name && name == key && row >> value) return value;
  }
  return std::nan("");
}

// The final objective the engine prints ("Objective      :   1.4E+00"); NaN if absent.
inline double ReadObjective(const std::string& console) {
  std::istringstream in(console);
  double objective = std::nan("");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Objective ", 0) != 0 || line.find("at start") != std::string::npos) continue;
    const size_t colon = line.find(':');
    if (colon != std::string::npos) objective = std::atof(line.c_str() + colon + 1);
  }
  return objective;
}

// The number after the first console line that starts with `label` and a colon; NaN if none.
inline double ReadConsoleNumber(const std::string& console, const std::string& label) {
  std::istringstream in(console);
  for (std::string line; std::getline(in, line);) {
    const size_t colon = line.find(':');
    if (line.rfind(label, 0) == 0 && colon != std::string::npos)
      return std::atof(line.c_str() + colon + 1);
  }
  return std::nan("");
}

// Seconds under the engine's function-evaluation timers (objective, rows, derivatives); the
// library calls them, so they are part of "Solver: ipopt".
inline double CallbackSeconds(const std::map<std::string, double>& timers) {
  double sum = 0;
  for (const char* name : {"Objective Calc: zpm_p", "Constraint Calc: zpm_c",
                           "Objective Grad: zpm_g", "Sparsity: zpm_s", "1st Deriv #1: zpm_a1",
                           "2nd Deriv: zpm_h"}) {
    const auto it = timers.find(name);
    if (it != timers.end()) sum += it->second;
  }
  return sum;
}

// The timer table with two derived entries: "callbacks" (CallbackSeconds) and "library" (the
// library call without the callbacks).
inline std::map<std::string, double> TimersOf(const std::string& console, bool cpu) {
  std::map<std::string, double> timers = ReadTimerTable(console, cpu);
  timers["callbacks"] = CallbackSeconds(timers);
  if (timers.count("Solver: ipopt")) timers["library"] = timers["Solver: ipopt"] - timers["callbacks"];
  return timers;
}

// A hand-coded problem for the library: keeps the return code and the objective it ends with.
class HandCodedTnlp : public Ipopt::TNLP {
 public:
  using Index = Ipopt::Index;
  using Number = Ipopt::Number;
  double objective = 0;
  int status = -1;  // the library's return code

  void finalize_solution(Ipopt::SolverReturn s, Index, const Number*, const Number*,
                         const Number*, Index, const Number*, const Number*, Number f,
                         const Ipopt::IpoptData*, Ipopt::IpoptCalculatedQuantities*) override {
    status = static_cast<int>(s);
    objective = f;
  }
};

// The options the engine's interior-point call sets, plus its log file.
inline void SetEngineOptions(Ipopt::IpoptApplication& app, double tol) {
  Ipopt::OptionsList& o = *app.Options();
  o.SetStringValue("mu_strategy", "adaptive");
  o.SetStringValue("hessian_approximation", "exact");
  o.SetStringValue("linear_solver", solvers::HslAvailable() ? "ma27" : "mumps");
  if (!solvers::HslAvailable()) o.SetIntegerValue("mumps_pivot_order", 6);  // the engine's QAMD
  o.SetNumericValue("tol", tol);
  o.SetNumericValue("mu_init", 0.0001);
  o.SetIntegerValue("print_level", 0);
  o.SetStringValue("sb", "yes");
  o.SetStringValue("output_file", "ipopt.out");
  o.SetIntegerValue("file_print_level", 5);
}

inline double Median(std::vector<double> v) {
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// Copies the files `names` from directory `from` into the current directory.
inline void CopyInputs(const fs::path& from, const std::vector<std::string>& names) {
  for (const std::string& n : names)
    fs::copy_file(from / n, n, fs::copy_options::overwrite_existing);
}

// One entry of a hand-coded problem's sparse matrix: its position on the structure call
// (values == nullptr), its value afterwards; k counts the entries.
inline void Put(int* rows, int* cols, double* values, int& k, int r, int c, double value) {
  if (values == nullptr) {
    rows[k] = r;
    cols[k] = c;
  } else {
    values[k] = value;
  }
  ++k;
}

// The iteration count from the library's log "ipopt.out" in the current directory.
inline int LoggedIterations() {
  const std::string log = ReadText("ipopt.out");
  const size_t at = log.rfind("Number of Iterations....:");
  return at == std::string::npos ? -1 : std::atoi(log.c_str() + at + 25);
}

}  // namespace kx::bench

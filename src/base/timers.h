// The run timers: up to 60 named timers that accumulate wall-clock and process time over one
// run, printed as one table at the end of the cycle.
#pragma once

#include <chrono>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace kx {

class TimerTable {
 public:
  static constexpr int kMaxTimers = 60;

  // Index of the timer with this name, created on first use. Past kMaxTimers, every new name
  // shares the last slot, so the table never grows without bound.
  int Id(std::string_view name);
  void Start(int id);
  void Stop(int id);
  double Seconds(int id) const { return timers_[id].wall; }
  int Calls(int id) const { return timers_[id].calls; }
  int size() const { return static_cast<int>(timers_.size()); }
  const std::string& Name(int id) const { return timers_[id].name; }
  void Reset() { timers_.clear(); }
  // Prints the table: one line per timer with its calls, wall and process seconds.
  void Print() const;

 private:
  struct Timer {
    std::string name;
    int calls = 0;
    int depth = 0;  // nested Start/Stop pairs count once
    double wall = 0, cpu = 0;
    std::chrono::steady_clock::time_point wall_start;
    std::clock_t cpu_start = 0;
  };
  std::vector<Timer> timers_;
};

// The table of the running process.
TimerTable& Timers();

// Times one scope under a named timer.
class ScopedTimer {
 public:
  explicit ScopedTimer(std::string_view name) : id_(Timers().Id(name)) { Timers().Start(id_); }
  ~ScopedTimer() { Timers().Stop(id_); }
  ScopedTimer(const ScopedTimer&) = delete;
  ScopedTimer& operator=(const ScopedTimer&) = delete;

 private:
  int id_;
};

// Seconds of wall-clock time since `start`.
double SecondsSince(std::chrono::steady_clock::time_point start);

}  // namespace kx

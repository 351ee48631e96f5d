#include "base/timers.h"

#include "base/report.h"

namespace kx {

int TimerTable::Id(std::string_view name) {
  for (int i = 0; i < size(); ++i)
    if (timers_[i].name == name) return i;
  if (size() >= kMaxTimers) return kMaxTimers - 1;
  Timer t;
  t.name = std::string(name);
  timers_.push_back(std::move(t));
  return size() - 1;
}

void TimerTable::Start(int id) {
  Timer& t = timers_[id];
  if (t.depth++ > 0) return;
  t.wall_start = std::chrono::steady_clock::now();
  t.cpu_start = std::clock();
}

void TimerTable::Stop(int id) {
  Timer& t = timers_[id];
  if (t.depth == 0 || --t.depth > 0) return;
  ++t.calls;
  t.wall += SecondsSince(t.wall_start);
  t.cpu += static_cast<double>(std::clock() - t.cpu_start) / CLOCKS_PER_SEC;
}

void TimerTable::Print() const {
  Say("");
  Say(" --------------------------------------------------------------------------");
  Say(fmt::format(" {:<4}{:<42}{:>8}{:>12}{:>12}", "#", "Timer", "Calls", "Wall (s)", "CPU (s)"));
  Say(" --------------------------------------------------------------------------");
  for (int i = 0; i < size(); ++i) {
    const Timer& t = timers_[i];
    Say(fmt::format(" {:<4}{:<42}{:>8}{:>12.4f}{:>12.4f}", i + 1, t.name.substr(0, 41), t.calls,
                    t.wall, t.cpu));
  }
  Say(" --------------------------------------------------------------------------");
}

TimerTable& Timers() {
  static TimerTable table;
  return table;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace kx

// One way to report: every line the engine prints goes through Say(), and every fatal
// condition goes through Fatal(), which prints its message lines and its stop line, flushes,
// and throws kx::Stop. Library code never calls exit(); main() catches Stop.
#pragma once

#include <initializer_list>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace kx {

// Thrown by Fatal(); carries every line that was printed for the stop, the stop line last.
class Stop : public std::runtime_error {
 public:
  explicit Stop(std::vector<std::string> lines);
  const std::vector<std::string>& lines() const { return lines_; }
  const std::string& stop_line() const { return lines_.back(); }

 private:
  std::vector<std::string> lines_;  // message lines, then the stop line
};

// Prints one line (a newline is added).
void Say(std::string_view line);

// Formats with fmt and prints one line.
template <typename... Args>
void Sayf(fmt::format_string<Args...> f, Args&&... args) {
  Say(fmt::format(f, std::forward<Args>(args)...));
}

// Prints the message lines, then the stop line, flushes, and throws Stop.
[[noreturn]] void Fatal(const std::vector<std::string>& message_lines,
                        std::string_view stop_line = "STOPPING...");

// Redirects all output to `out` for the lifetime of the object (tests capture output this
// way); restores the previous sink on destruction.
class OutputCapture {
 public:
  OutputCapture();
  ~OutputCapture();
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;
  std::string text() const;
  std::vector<std::string> lines() const;
  bool Contains(std::string_view s) const { return text().find(s) != std::string::npos; }

 private:
  std::ostream* previous_;
  struct Impl;
  Impl* impl_;
};

// Flushes the current sink.
void FlushOutput();

}  // namespace kx

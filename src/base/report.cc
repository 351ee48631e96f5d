#include "base/report.h"

#include <iostream>
#include <sstream>

namespace kx {
namespace {

std::ostream*& Sink() {
  static std::ostream* sink = &std::cout;
  return sink;
}

std::string JoinLines(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) {
    if (!out.empty()) out += '\n';
    out += l;
  }
  return out;
}

}  // namespace

Stop::Stop(std::vector<std::string> lines)
    : std::runtime_error(JoinLines(lines)), lines_(std::move(lines)) {
  if (lines_.empty()) lines_.push_back("STOPPING...");
}

void Say(std::string_view line) {
  std::ostream& out = *Sink();
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
  out.put('\n');
}

void FlushOutput() { Sink()->flush(); }

void Fatal(const std::vector<std::string>& message_lines, std::string_view stop_line) {
  for (const auto& l : message_lines) Say(l);
  Say(stop_line);
  FlushOutput();
  std::vector<std::string> all = message_lines;
  all.emplace_back(stop_line);
  throw Stop(std::move(all));
}

struct OutputCapture::Impl {
  std::ostringstream buffer;
};

OutputCapture::OutputCapture() : previous_(Sink()), impl_(new Impl) { Sink() = &impl_->buffer; }

OutputCapture::~OutputCapture() {
  Sink() = previous_;
  delete impl_;
}

std::string OutputCapture::text() const { return impl_->buffer.str(); }

std::vector<std::string> OutputCapture::lines() const {
  std::vector<std::string> out;
  std::istringstream in(impl_->buffer.str());
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

}  // namespace kx

// A fresh temporary directory for one test, removed when the test ends. A WorkingDir also
// makes it the current directory while it lives and restores the previous one afterwards.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace kx::testing {

// The whole text of a file; empty when it cannot be read.
inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class ScratchDir {
 public:
  // The name is the tag, the process id and a per-process count, so tests run in parallel
  // (one process each) and several directories in one test never collide.
  explicit ScratchDir(const std::string& tag = "kx_scratch") {
    static int counter = 0;
    path_ = std::filesystem::temp_directory_path() /
            (tag + "_" + std::to_string(::getpid()) + "_" + std::to_string(++counter));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }
  // The full path of a file in the directory.
  std::string File(const std::string& name) const { return (path_ / name).string(); }

  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(path_ / name) << text;
  }
  std::string Read(const std::string& name) const { return ReadFile(path_ / name); }
  bool Exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }

 private:
  std::filesystem::path path_;
};

class WorkingDir : public ScratchDir {
 public:
  explicit WorkingDir(const std::string& tag = "kx_scratch")
      : ScratchDir(tag), previous_(std::filesystem::current_path()) {
    std::filesystem::current_path(path());
  }
  ~WorkingDir() { std::filesystem::current_path(previous_); }

 private:
  std::filesystem::path previous_;
};

}  // namespace kx::testing

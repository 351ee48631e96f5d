// A fresh temporary working directory for one test; the previous directory is restored and
// the scratch directory removed at the end of the test.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kx::testing {

class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag)
      : previous_(std::filesystem::current_path()),
        path_(std::filesystem::temp_directory_path() / (tag + "_" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
    std::filesystem::current_path(path_);
  }
  ~ScratchDir() {
    std::filesystem::current_path(previous_);
    std::filesystem::remove_all(path_);
  }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(path_ / name) << text;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(path_ / name);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }

 private:
  std::filesystem::path previous_;
  std::filesystem::path path_;
};

}  // namespace kx::testing

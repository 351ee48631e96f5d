#include "dbs/atomic_file.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "base/report.h"

namespace kx::dbs {

bool WriteFileAtomically(const std::string& path, std::string_view text) {
  std::string tmp = path + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.flush();
    if (!out) {
      out.close();
      std::remove(tmp.c_str());
      Say("Warning: unable to write file " + path);
      return false;
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    std::remove(tmp.c_str());
    Say("Warning: unable to replace file " + path);
    return false;
  }
  return true;
}

bool ReadWholeFile(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  *text = buffer.str();
  return true;
}

}  // namespace kx::dbs

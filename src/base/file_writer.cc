#include "base/file_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/report.h"

namespace kx {
namespace {

std::string last_error;  // reason of the last failed write
thread_local SyncBatch* open_batch = nullptr;  // innermost open batch of this thread, or null

// The directory part of `path` ("." when there is none), for the temporary file and fsync.
std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool Fail(const std::string& path, const std::string& why) {
  last_error = why;
  Say("Warning: unable to write file " + path + ": " + why);
  return false;
}

// Refuses a target that is a symbolic link or not a regular file; a missing target is fine.
bool TargetAcceptable(const std::string& path, WriteMode mode, std::string* why) {
  if (mode != WriteMode::kPlainFileName) return true;
  if (!IsPlainFileName(NameOf(path))) {
    *why = "not a plain file name";
    return false;
  }
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return true;
  if (S_ISLNK(st.st_mode)) {
    *why = "it is a symbolic link";
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = "it is not a regular file";
    return false;
  }
  return true;
}

// Writes all of `text` to `fd`, retrying short writes; errno is left set on failure.
bool WriteAll(int fd, std::string_view text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Creates the temporary file beside the target (never following a link) and fills it. A file
// of that name can only be left by a killed run whose process id was ours: it goes first.
bool WriteTemporary(const std::string& tmp, std::string_view text, std::string* why) {
  ::unlink(tmp.c_str());
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    *why = std::strerror(errno);
    return false;
  }
  bool ok = WriteAll(fd, text) && ::fsync(fd) == 0;
  if (!ok) *why = std::strerror(errno);
  if (::close(fd) != 0 && ok) {
    *why = std::strerror(errno);
    ok = false;
  }
  return ok;
}

// Makes the rename itself durable; a failure here loses nothing that is already visible.
void SyncDirectory(const std::string& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

bool IsPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of("/\\") == std::string_view::npos;
}

bool WriteFileAtomically(const std::string& path, std::string_view text, WriteMode mode) {
  std::string why;
  if (!TargetAcceptable(path, mode, &why)) return Fail(path, why);
  const std::string dir = DirectoryOf(path);
  const std::string tmp = dir + "/." + NameOf(path) + ".tmp" + std::to_string(::getpid());
  if (!WriteTemporary(tmp, text, &why)) {
    ::unlink(tmp.c_str());
    return Fail(path, why);
  }
  // rename() replaces a link at the target by the new file: it never writes through it.
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    why = std::strerror(errno);
    ::unlink(tmp.c_str());
    return Fail(path, why);
  }
  if (open_batch != nullptr) {
    open_batch->Note(dir);
  } else {
    SyncDirectory(dir);
  }
  return true;
}

SyncBatch::SyncBatch() : outer_(open_batch) { open_batch = this; }

SyncBatch::~SyncBatch() {
  Flush();
  open_batch = outer_;
}

void SyncBatch::Flush() {
  for (const std::string& dir : dirs_) SyncDirectory(dir);
  dirs_.clear();
}

void SyncBatch::Note(const std::string& dir) {
  if (std::find(dirs_.begin(), dirs_.end(), dir) == dirs_.end()) dirs_.push_back(dir);
}

const std::string& LastWriteError() { return last_error; }

bool ReadWholeFile(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  *text = buffer.str();
  return true;
}

}  // namespace kx

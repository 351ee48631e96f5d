#include "base/file_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
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

// Creates the temporary file beside the target (never following a link) and fills it; the
// open file, or -1 with `why` set. A file of that name can only be left by a killed run whose
// process id was ours (or by an earlier write of this run still held in a batch): it goes first.
int FillTemporary(const std::string& tmp, std::string_view text, std::string* why) {
  ::unlink(tmp.c_str());
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    *why = std::strerror(errno);
    return -1;
  }
  if (!WriteAll(fd, text)) {
    *why = std::strerror(errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

// Syncs and closes a filled temporary file; false with `why` set on failure.
bool SyncAndClose(int fd, std::string* why) {
  bool ok = ::fsync(fd) == 0;
  if (!ok) *why = std::strerror(errno);
  if (::close(fd) != 0 && ok) {
    *why = std::strerror(errno);
    ok = false;
  }
  return ok;
}

bool WriteTemporary(const std::string& tmp, std::string_view text, std::string* why) {
  const int fd = FillTemporary(tmp, text, why);
  return fd >= 0 && SyncAndClose(fd, why);
}

// Puts the synced temporary file under its real name; on failure says why and removes it.
// rename() replaces a link at the target by the new file: it never writes through it.
bool RenameIntoPlace(const std::string& tmp, const std::string& path) {
  if (std::rename(tmp.c_str(), path.c_str()) == 0) return true;
  const std::string why = std::strerror(errno);
  ::unlink(tmp.c_str());
  return Fail(path, why);
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

// The process id of a temporary file name ".NAME.tmpPID", or 0 when `name` is not one.
pid_t TemporaryOwner(std::string_view name) {
  const size_t tmp = name.rfind(".tmp");
  if (name.size() < 6 || name[0] != '.' || tmp == std::string_view::npos || tmp == 0) return 0;
  const std::string_view digits = name.substr(tmp + 4);
  if (digits.empty() || digits.size() > 9) return 0;
  pid_t pid = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return 0;
    pid = 10 * pid + (c - '0');
  }
  return pid;
}

int RemoveStaleTemporaries(const std::string& dir) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return 0;
  int removed = 0;
  while (const dirent* entry = ::readdir(d)) {
    const pid_t owner = TemporaryOwner(entry->d_name);
    if (owner <= 0 || owner == ::getpid()) continue;
    if (::kill(owner, 0) == 0 || errno != ESRCH) continue;  // its writer may still be running
    if (::unlink((dir + "/" + entry->d_name).c_str()) == 0) ++removed;
  }
  ::closedir(d);
  return removed;
}

bool WriteFileAtomically(const std::string& path, std::string_view text, WriteMode mode) {
  std::string why;
  if (!TargetAcceptable(path, mode, &why)) return Fail(path, why);
  const std::string dir = DirectoryOf(path);
  const std::string tmp = dir + "/." + NameOf(path) + ".tmp" + std::to_string(::getpid());
  SyncBatch* batch = open_batch;
  if (batch != nullptr && batch->renames_ == SyncBatch::Renames::kAtClose &&
      mode == WriteMode::kAnyPath) {
    const int fd = FillTemporary(tmp, text, &why);
    if (fd < 0) {
      ::unlink(tmp.c_str());
      return Fail(path, why);
    }
    batch->Hold({path, tmp, dir, fd});
    return true;
  }
  if (!WriteTemporary(tmp, text, &why)) {
    ::unlink(tmp.c_str());
    return Fail(path, why);
  }
  if (!RenameIntoPlace(tmp, path)) return false;
  if (batch != nullptr) {
    batch->Note(dir);
  } else {
    SyncDirectory(dir);
  }
  return true;
}

SyncBatch::SyncBatch(Renames renames) : renames_(renames), outer_(open_batch) {
  open_batch = this;
}

// An inner batch hands its directories to the outer one, which syncs them once at its end.
SyncBatch::~SyncBatch() {
  if (outer_ != nullptr) {
    SettleHeldFiles();
    for (const std::string& dir : dirs_) outer_->Note(dir);
  } else {
    Flush();
  }
  open_batch = outer_;
}

bool SyncBatch::Flush() {
  const bool ok = SettleHeldFiles();
  for (const std::string& dir : dirs_) SyncDirectory(dir);
  dirs_.clear();
  return ok;
}

void SyncBatch::Note(const std::string& dir) {
  if (std::find(dirs_.begin(), dirs_.end(), dir) == dirs_.end()) dirs_.push_back(dir);
}

// A second write to the same name replaces the first: its temporary file was already
// unlinked and refilled under the same temporary name.
void SyncBatch::Hold(HeldFile file) {
  for (HeldFile& held : held_) {
    if (held.path != file.path) continue;
    ::close(held.fd);
    held.fd = file.fd;
    return;
  }
  held_.push_back(std::move(file));
}

// Starts the write-back of every held file before waiting on any, so that the syncs overlap
// (the first wait commits the journal for all of them), then renames them in order.
bool SyncBatch::SettleHeldFiles() {
#ifdef SYNC_FILE_RANGE_WRITE
  for (const HeldFile& held : held_) ::sync_file_range(held.fd, 0, 0, SYNC_FILE_RANGE_WRITE);
#endif
  bool ok = true;
  for (const HeldFile& held : held_) {
    std::string why;
    if (!SyncAndClose(held.fd, &why)) {
      ::unlink(held.tmp.c_str());
      ok = Fail(held.path, why);
      continue;
    }
    if (!RenameIntoPlace(held.tmp, held.path)) {
      ok = false;
      continue;
    }
    Note(held.dir);
  }
  held_.clear();
  return ok;
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

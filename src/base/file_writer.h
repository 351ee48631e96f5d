// The one way the engine writes a file. The text goes to a temporary file in the target's
// directory; every write is checked, the data is flushed to the disk, and the temporary file
// is renamed over the target. A reader (or a run killed at any moment) sees either the old
// complete file or the new complete file, never a part of one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kx {

// How a write treats the target path.
enum class WriteMode {
  kAnyPath,        // engine files: the path the engine chose
  kPlainFileName,  // user-named files (`File` blocks): a plain name, never a symbolic link
};

// Writes `text` to `path`. On failure prints one line "Warning: unable to write file PATH: WHY",
// removes the temporary file, leaves any previous file at `path` untouched and returns false.
// With kPlainFileName, `path` is DIR/NAME where NAME has no directory part, and a symbolic
// link (or anything but a regular file) at the target is refused rather than followed.
bool WriteFileAtomically(const std::string& path, std::string_view text,
                         WriteMode mode = WriteMode::kAnyPath);

// Removes the temporary files (".NAME.tmpPID") that writers which no longer run left in `dir`
// when they were killed between writing and renaming; returns how many. A temporary of a
// running process (another cycle in the same folder) is left alone.
int RemoveStaleTemporaries(const std::string& dir);

// While a SyncBatch is open (per thread; the innermost one counts, and an inner batch settles
// its own files when it closes but leaves its directories to the outer one),
// WriteFileAtomically leaves the directory sync, which only makes a rename durable, to the
// batch's end: one sync per directory instead of one per file.
//
// kAtOnce: each file's data is still synced and the file renamed into place as it is written,
// so a later read sees it. kAtClose (for the last files of a cycle, which nothing reads back):
// engine files (kAnyPath) stay under their temporary names until the batch closes or flushes;
// then all their data is synced together and they are renamed in the order written. Either way
// a crash leaves the old or the new complete file under each name, never a part of one. A
// failure found at the close is reported by the same warning line as in WriteFileAtomically.
class SyncBatch {
 public:
  enum class Renames { kAtOnce, kAtClose };

  explicit SyncBatch(Renames renames = Renames::kAtOnce);
  ~SyncBatch();  // as Flush (an inner batch: its directories go to the outer one)
  SyncBatch(const SyncBatch&) = delete;
  SyncBatch& operator=(const SyncBatch&) = delete;

  // Syncs and renames the files held back, then syncs the directories written so far; the
  // batch stays open. False when a held-back file could not be put in place.
  bool Flush();

 private:
  // An engine file written to its temporary name and not yet synced or renamed.
  struct HeldFile {
    std::string path;  // the real name
    std::string tmp;   // the temporary name beside it
    std::string dir;   // the directory of both
    int fd;            // the temporary file, still open
  };
  friend bool WriteFileAtomically(const std::string&, std::string_view, WriteMode);
  void Note(const std::string& dir);
  void Hold(HeldFile file);
  bool SettleHeldFiles();

  Renames renames_;                // when files go under their real names
  SyncBatch* outer_;               // the batch open before this one, or null
  std::vector<std::string> dirs_;  // directories renamed into since the last flush
  std::vector<HeldFile> held_;     // files held back, in the order written
};

// The reason the last failed WriteFileAtomically gave ("No space left on device").
const std::string& LastWriteError();

// True for a plain file name: not empty, no '/' or '\\', not "." or "..".
bool IsPlainFileName(std::string_view name);

// Reads a whole file; false when it cannot be opened.
bool ReadWholeFile(const std::string& path, std::string* text);

}  // namespace kx

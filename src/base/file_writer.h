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

// While a SyncBatch is open (per thread; an inner batch syncs its own files when it closes),
// WriteFileAtomically still syncs each file's data before the rename, so a crash leaves the old
// or the new complete file under the name, but it leaves the directory sync, which only makes
// the rename itself durable, to the batch's end: one sync per directory instead of per file.
class SyncBatch {
 public:
  SyncBatch();
  ~SyncBatch();  // syncs every directory that received a file
  SyncBatch(const SyncBatch&) = delete;
  SyncBatch& operator=(const SyncBatch&) = delete;

  // Syncs the directories written so far; the batch stays open.
  void Flush();

 private:
  friend bool WriteFileAtomically(const std::string&, std::string_view, WriteMode);
  void Note(const std::string& dir);

  SyncBatch* outer_;              // the batch open before this one, or null
  std::vector<std::string> dirs_;  // directories renamed into since the last flush
};

// The reason the last failed WriteFileAtomically gave ("No space left on device").
const std::string& LastWriteError();

// True for a plain file name: not empty, no '/' or '\\', not "." or "..".
bool IsPlainFileName(std::string_view name);

// Reads a whole file; false when it cannot be opened.
bool ReadWholeFile(const std::string& path, std::string* text);

}  // namespace kx

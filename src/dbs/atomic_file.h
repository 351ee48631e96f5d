// Whole-file writes that never leave a half-written file: the text goes to a temporary file
// beside the target, which is then renamed over it.
#pragma once

#include <string>
#include <string_view>

namespace kx::dbs {

// Writes `text` to `path` atomically. On failure prints one warning naming the file, leaves
// any previous file untouched and returns false.
bool WriteFileAtomically(const std::string& path, std::string_view text);

// Reads a whole file; false when it cannot be opened.
bool ReadWholeFile(const std::string& path, std::string* text);

}  // namespace kx::dbs

// model/compile_cache: the built model kept across cycles. An outer program runs one cycle
// after another on the same model file; reading, expanding and compiling it again each time
// gives the same model store. After a build, the store (records, programs with their
// derivative code, column maps, intermediates) and the lines the build printed are written to
// a cache file in the working directory. The next build loads that file instead when its key
// still matches: the model file's bytes, the bytes of every data file the model's objects
// read, the build options, the engine executable and the format version. The file carries its
// length and a checksum; a damaged, stale or unreadable cache is never used: the model is
// built again and the cache rewritten.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "model/builder.h"
#include "model/records.h"

namespace kx::model {

// Version of the cache layout; raise it whenever the records or the program layout change.
inline constexpr uint32_t kCacheFormatVersion = 4;

// BuildModel through the cache file `cache_file`: loads the stored model when the cache is
// whole and its key matches, otherwise builds and writes the cache (not when the build stops).
// Prints the lines BuildModel prints; after a load the phase times read 0. At DIAGLEVEL >= 2
// the build leaves diagnostic files, so the cache is neither read nor written. The store comes
// without residual texts (they only feed the compiler), and the cache holds none.
ModelStore BuildModelCached(const std::string& model_file, const BuildOptions& options,
                            const std::string& cache_file);

// The store and the lines its build printed, as cache bytes, and back. DecodeCache gives
// nothing (with the reason in `why`) when the bytes are damaged or their key is not `key`.
struct CachedModel {
  ModelStore store;
  std::vector<std::string> lines;  // what the build printed, in order
  std::vector<std::string> files;  // content of each of store.files_written
};
std::string EncodeCache(std::string_view key, const CachedModel& model);
std::optional<CachedModel> DecodeCache(std::string_view bytes, std::string_view key,
                                       std::string* why);

}  // namespace kx::model

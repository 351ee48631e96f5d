// The compile cache file. Layout (integers little-endian as the machine stores them):
//   magic "KXZPC\r\n\x1a" | u32 format version | u64 body length | u32 body CRC-32 | body
// body: key text | data files (path, length, CRC-32 and Adler-32 of each) | printed lines |
// written files | the model store. Every count is checked against the bytes left, so a
// damaged file is refused without large allocations even before its checksum is compared.
#include "model/compile_cache.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <type_traits>
#include <unordered_map>

#include "base/file_writer.h"
#include "base/report.h"
#include "base/text.h"

namespace kx::model {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kMagic = "KXZPC\r\n\x1a";
constexpr size_t kHeadBytes = 8 + 4 + 8 + 4;  // magic, version, body length, body checksum

// A new field in a record must be stored too (Fields below) and the format version raised.
static_assert(sizeof(Variable) == 128, "Variable changed: update Fields and the version");
static_assert(sizeof(Equation) == 168, "Equation changed: update Fields and the version");
static_assert(sizeof(Intermediate) == 112, "Intermediate changed: update Fields");

// A zlib checksum (crc32 or adler32) of `bytes`. zlib takes lengths as uInt: large inputs go
// in pieces.
uint32_t Checksum(uLong (*update)(uLong, const Bytef*, uInt), std::string_view bytes) {
  uLong sum = update(0L, Z_NULL, 0);
  constexpr size_t kPiece = size_t{1} << 30;
  for (size_t at = 0; at < bytes.size(); at += kPiece) {
    const size_t n = std::min(kPiece, bytes.size() - at);
    sum = update(sum, reinterpret_cast<const Bytef*>(bytes.data() + at), static_cast<uInt>(n));
  }
  return static_cast<uint32_t>(sum);
}

uint32_t Crc(std::string_view bytes) { return Checksum(crc32, bytes); }
uint32_t Adler(std::string_view bytes) { return Checksum(adler32, bytes); }

// A whole file read in one piece of its size (a cache of a large model runs to tens of MB).
bool ReadBytes(const std::string& path, std::string* bytes) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return false;
  const std::streamoff size = in.tellg();
  if (size < 0) return false;
  bytes->resize(static_cast<size_t>(size));
  in.seekg(0);
  return static_cast<bool>(in.read(bytes->data(), size));
}

// A whole file mapped read-only: a cache runs to tens of MB, and a copy would first zero and
// then fill a buffer of that size. A cache file is replaced by a rename, never rewritten in
// place, so the mapped bytes stay as they were while they are read.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st;
    if (::fstat(fd, &st) == 0) {
      ok_ = true;
      if (st.st_size > 0) {
        void* p = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
        ok_ = p != MAP_FAILED;
        if (ok_) bytes_ = std::string_view(static_cast<const char*>(p), st.st_size);
      }
    }
    ::close(fd);
  }
  ~MappedFile() {
    if (!bytes_.empty()) ::munmap(const_cast<char*>(bytes_.data()), bytes_.size());
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  bool ok() const { return ok_; }
  std::string_view bytes() const { return bytes_; }

 private:
  bool ok_ = false;
  std::string_view bytes_;
};

// The fingerprint of a file's bytes: length and two checksums; "missing" when unreadable.
std::string Fingerprint(std::string_view bytes) {
  return fmt::format("{}:{:08x}:{:08x}", bytes.size(), Crc(bytes), Adler(bytes));
}

std::string FileFingerprint(const std::string& path) {
  std::string bytes;
  return ReadBytes(path, &bytes) ? Fingerprint(bytes) : "missing";
}

// The engine that wrote a cache: another build of the executable may compile differently.
std::string ExecutableIdentity() {
  std::error_code ec;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return "unknown";
  const auto size = std::filesystem::file_size(exe, ec);
  if (ec) return "unknown";
  const auto time = std::filesystem::last_write_time(exe, ec).time_since_epoch().count();
  return fmt::format("{}:{}:{}", exe.string(), size, ec ? 0 : time);
}

// Everything besides the data files that decides what a build gives.
std::string KeyText(const std::string& model_file, std::string_view model_bytes,
                    const BuildOptions& o) {
  return fmt::format(
      "format={};exe={};model={};bytes={};diaglevel={};max_memory={};stream_level={};"
      "scaling={};max_range={};work_dir={};evaluate_start={}",
      kCacheFormatVersion, ExecutableIdentity(), model_file, Fingerprint(model_bytes), o.diaglevel,
      o.max_memory, o.stream_level, o.scaling, o.max_range, o.work_dir, o.evaluate_start);
}

// Bytes out: every Item appends one value; vectors and strings carry their length first.
class Encoder {
 public:
  template <typename... T>
  void operator()(const T&... items) {
    (Item(items), ...);
  }
  template <typename T>
  requires std::is_arithmetic_v<T>
  void Item(T v) { bytes_.append(reinterpret_cast<const char*>(&v), sizeof v); }
  void Item(const std::string& s) {
    Item(static_cast<uint64_t>(s.size()));
    bytes_ += s;
  }
  template <typename T>
  void Item(const std::vector<T>& items) {
    Item(static_cast<uint64_t>(items.size()));
    for (const T& x : items) Item(x);
  }
  void Item(const lang::Program& p) { p.Save(&bytes_); }
  // A statement shared by vector copies is written once, where it first occurs, and named by
  // its number after that; -1 stands for none.
  template <typename S>
  void Item(const std::shared_ptr<const S>& statement) {
    if (statement == nullptr) return Item(int64_t{-1});
    const auto [at, added] = statements_.try_emplace(statement.get(), statements_.size());
    Item(static_cast<int64_t>(at->second));
    if (added) Fields(*this, *statement);
  }
  // A boxed value is one byte, whether it is there, and then its fields.
  template <typename T>
  void Item(const Boxed<T>& box) {
    Item(static_cast<uint8_t>(box.has_value()));
    if (box.has_value()) Fields(*this, box.get());
  }
  template <typename T>
  requires std::is_class_v<T>
  void Item(const T& record) { Fields(*this, record); }
  std::string& bytes() { return bytes_; }

 private:
  std::string bytes_;
  std::unordered_map<const lang::CopiedStatement*, size_t> statements_;  // written so far
};

// Bytes in, the mirror of Encoder; `ok()` turns false at the first value that does not fit.
class Decoder {
 public:
  explicit Decoder(std::string_view in) : in_(in) {}
  template <typename... T>
  void operator()(T&... items) {
    (Item(items), ...);
  }
  template <typename T>
  requires std::is_arithmetic_v<T>
  void Item(T& v) {
    if (!Fits(sizeof v)) return;
    std::memcpy(&v, in_.data(), sizeof v);
    in_.remove_prefix(sizeof v);
  }
  void Item(std::string& s) {
    uint64_t n = 0;
    Item(n);
    if (!Fits(n)) return;
    s.assign(in_.data(), n);
    in_.remove_prefix(n);
  }
  template <typename T>
  void Item(std::vector<T>& items) {
    uint64_t n = 0;
    Item(n);
    if (!Fits(n)) return;  // every item takes at least one byte
    items.resize(n);
    for (T& x : items) Item(x);
  }
  void Item(lang::Program& p) {
    if (ok_ && !p.Load(&in_)) ok_ = false;
  }
  template <typename S>
  void Item(std::shared_ptr<const S>& statement) {
    int64_t number = -1;
    Item(number);
    if (!ok_ || number < 0) return;
    if (static_cast<uint64_t>(number) < statements_.size()) {
      statement = statements_[number];
    } else if (static_cast<uint64_t>(number) == statements_.size()) {
      auto read = std::make_shared<S>();
      Fields(*this, *read);
      statement = statements_.emplace_back(std::move(read));
    } else {
      ok_ = false;
    }
  }
  template <typename T>
  void Item(Boxed<T>& box) {
    uint8_t has = 0;
    Item(has);
    if (ok_ && has != 0) Fields(*this, box.mutable_value());
  }
  template <typename T>
  requires std::is_class_v<T>
  void Item(T& record) { Fields(*this, record); }
  bool ok() const { return ok_; }
  bool AtEnd() const { return in_.empty(); }

 private:
  bool Fits(uint64_t n) {
    ok_ = ok_ && n <= in_.size();
    return ok_;
  }
  std::string_view in_;
  bool ok_ = true;
  std::vector<std::shared_ptr<const lang::CopiedStatement>> statements_;  // read so far
};

// The stored fields of each record, one list for both directions.
template <typename A, typename V>
requires std::is_same_v<std::remove_const_t<V>, Variable>
void Fields(A& a, V& v) {
  a(v.name, v.vtype, v.number, v.idiff, v.diff, v.fixed, v.obj_def, v.iv, v.integer, v.slack,
    v.preferred, v.number_v, v.number_d, v.number_n, v.number_h, v.notes, v.forward, v.spec,
    v.val, v.d_val, v.lower, v.upper, v.scale, v.line);
}

template <typename A, typename N>
requires std::is_same_v<std::remove_const_t<N>, VariableNotes>
void Fields(A& a, N& n) { a(n.units, n.aliases); }

template <typename A, typename E>
requires std::is_same_v<std::remove_const_t<E>, Equation>
void Fields(A& a, E& e) {
  a(e.name, e.text, e.type, e.active, e.differential, e.obj_eqn, e.residual, e.lower, e.upper,
    e.scaling, e.lambda, e.program, e.columns, e.line, e.statement, e.copy, e.copied);
}

template <typename A, typename S>
requires std::is_same_v<std::remove_const_t<S>, lang::CopiedStatement>
void Fields(A& a, S& s) { a(s.text, s.ranges, s.residual, s.placed); }

template <typename A, typename R>
requires std::is_same_v<std::remove_const_t<R>, lang::IndexRange>
void Fields(A& a, R& r) { a(r.open, r.close, r.first, r.last, r.range); }

template <typename A, typename M>
requires std::is_same_v<std::remove_const_t<M>, Intermediate>
void Fields(A& a, M& m) { a(m.name, m.text, m.handle, m.program, m.columns, m.value, m.line); }

template <typename A, typename C>
requires std::is_same_v<std::remove_const_t<C>, Constant>
void Fields(A& a, C& c) { a(c.name, c.value); }

template <typename A, typename C>
requires std::is_same_v<std::remove_const_t<C>, Connection>
void Fields(A& a, C& c) { a(c.number, c.a, c.b, c.var_a, c.var_b); }

template <typename A, typename O>
requires std::is_same_v<std::remove_const_t<O>, ObjectDecl>
void Fields(A& a, O& o) { a(o.name, o.type, o.arguments, o.line); }

template <typename A, typename D>
requires std::is_same_v<std::remove_const_t<D>, lang::DomainErrors>
void Fields(A& a, D& d) {
  a(d.divide_by_zero, d.log10_negative, d.log_negative, d.sqrt_negative, d.asin_illegal,
    d.acos_illegal);
}

template <typename A, typename S>
requires std::is_same_v<std::remove_const_t<S>, ModelStore>
void Fields(A& a, S& s) {
  a(s.name, s.vars, s.order, s.eqns, s.intermediates, s.constants, s.connections, s.objects,
    s.compounds, s.programs, s.nvar, s.ndiff, s.num_integer, s.num_diff_eqns, s.num_alg_eqns,
    s.num_obj_eqns, s.exact_hessian, s.start_errors, s.files_read, s.files_written);
}

// The data files of the store with their fingerprints now.
std::vector<std::string> DataFingerprints(const ModelStore& store) {
  std::vector<std::string> prints;
  for (const std::string& path : store.files_read) prints.push_back(FileFingerprint(path));
  return prints;
}

template <typename T>
T ReadRaw(std::string_view bytes, size_t at) {
  T v;
  std::memcpy(&v, bytes.data() + at, sizeof v);
  return v;
}

// The body of a cache file after its head is checked; empty with `why` set otherwise.
std::optional<std::string_view> CheckedBody(std::string_view bytes, std::string* why) {
  if (bytes.size() < kHeadBytes || bytes.substr(0, kMagic.size()) != kMagic) {
    *why = "not a cache file";
    return std::nullopt;
  }
  if (ReadRaw<uint32_t>(bytes, 8) != kCacheFormatVersion) {
    *why = "another format version";
    return std::nullopt;
  }
  const std::string_view body = bytes.substr(kHeadBytes);
  if (ReadRaw<uint64_t>(bytes, 12) != body.size()) {
    *why = "wrong length";
    return std::nullopt;
  }
  if (ReadRaw<uint32_t>(bytes, 20) != Crc(body)) {
    *why = "checksum mismatch";
    return std::nullopt;
  }
  return body;
}

// Ranges that lie inside their text, ascending, as WriteCopy reads them.
bool RangesInside(const std::vector<lang::IndexRange>& ranges, const std::string& text) {
  size_t end = 0;
  for (const lang::IndexRange& r : ranges) {
    if (r.open < end || r.close <= r.open || r.close >= text.size()) return false;
    end = r.close;
  }
  return true;
}

// Every vector copy has the statement its texts are written from, and that statement's index
// places lie inside its texts.
bool CopiesReadable(const ModelStore& store) {
  for (const Equation& e : store.eqns) {
    if (e.copied == nullptr) {
      if (e.copy != 0) return false;
      continue;
    }
    const lang::CopiedStatement& s = *e.copied;
    if (!RangesInside(s.ranges, s.text) || !RangesInside(s.placed, s.residual)) return false;
  }
  return true;
}

// The phase timing lines of the build ("Read model file (sec):      0.012345") read 0 after
// a load; the total is the time the load took.
std::string ReplayedLine(const std::string& line, double load_seconds) {
  constexpr size_t kLabel = 46;
  if (line.size() != kLabel + 12) return line;
  const std::string label(Trim(std::string_view(line).substr(0, kLabel)));
  if (!EndsWith(label, "(sec):")) return line;
  const double seconds = label == "Total Parse Time (sec):" ? load_seconds : 0.0;
  return fmt::format("{:<46}{:12.6f}", label, seconds);
}

std::optional<CachedModel> LoadCache(const std::string& cache_file, const std::string& key,
                                     int diaglevel) {
  if (!std::filesystem::exists(cache_file)) return std::nullopt;
  const MappedFile file(cache_file);
  if (!file.ok()) return std::nullopt;
  std::string why;
  std::optional<CachedModel> cached = DecodeCache(file.bytes(), key, &why);
  if (!cached && diaglevel >= 1) Sayf("Compile cache {} not used ({}): building", cache_file, why);
  return cached;
}

// Writes the files the build wrote again (File blocks, the connections listing); a file that
// already holds its text is left alone, saving the write's flush to disk.
bool RewriteFiles(const CachedModel& cached) {
  for (size_t i = 0; i < cached.files.size(); ++i) {
    const std::string& path = cached.store.files_written[i];
    std::string now;
    if (ReadBytes(path, &now) && now == cached.files[i]) continue;
    if (!WriteFileAtomically(path, cached.files[i], WriteMode::kPlainFileName)) return false;
  }
  return true;
}

// Builds with the printed lines captured as well as shown; they go into the cache.
CachedModel BuildCapturing(const std::string& model_file, const BuildOptions& options) {
  CachedModel built;
  std::optional<OutputCapture> capture(std::in_place);
  auto release = [&] {
    built.lines = capture->lines();
    capture.reset();
    for (const std::string& line : built.lines) Say(line);
  };
  try {
    built.store = BuildModel(model_file, options);
  } catch (...) {
    release();
    FlushOutput();
    throw;
  }
  release();
  return built;
}

void WriteCache(const std::string& cache_file, const std::string& key, CachedModel* built) {
  for (const std::string& path : built->store.files_written) {
    std::string content;
    if (!ReadBytes(path, &content)) return;  // nothing to replay it from: no cache
    built->files.push_back(std::move(content));
  }
  WriteFileAtomically(cache_file, EncodeCache(key, *built));
}

}  // namespace

// The head is written in front of the body once the body is known, in the same string: a
// large model's bytes are neither copied whole nor grown from nothing.
std::string EncodeCache(std::string_view key, const CachedModel& model) {
  constexpr size_t kBytesPerRecord = 192;  // above what a variable or equation record takes
  Encoder out;
  std::string& bytes = out.bytes();
  const size_t records = model.store.vars.size() + model.store.eqns.size();
  bytes.reserve(kHeadBytes + kBytesPerRecord * records);
  bytes.assign(kHeadBytes, '\0');
  out(std::string(key), model.store.files_read, DataFingerprints(model.store), model.lines,
      model.files, model.store);
  const std::string_view body = std::string_view(bytes).substr(kHeadBytes);
  Encoder head;
  head.bytes() = kMagic;
  head(kCacheFormatVersion, static_cast<uint64_t>(body.size()), Crc(body));
  bytes.replace(0, kHeadBytes, head.bytes());
  return std::move(bytes);
}

std::optional<CachedModel> DecodeCache(std::string_view bytes, std::string_view key,
                                       std::string* why) {
  const std::optional<std::string_view> body = CheckedBody(bytes, why);
  if (!body) return std::nullopt;
  Decoder in(*body);
  std::string stored_key;
  std::vector<std::string> data_files, prints;
  in(stored_key, data_files, prints);
  if (!in.ok() || stored_key != key) {
    *why = in.ok() ? "model file, options or engine changed" : "unreadable";
    return std::nullopt;
  }
  for (size_t i = 0; i < data_files.size(); ++i) {
    if (i >= prints.size() || FileFingerprint(data_files[i]) != prints[i]) {
      *why = "data file changed: " + data_files[i];
      return std::nullopt;
    }
  }
  CachedModel cached;
  in(cached.lines, cached.files, cached.store);
  if (!in.ok() || !in.AtEnd() || cached.files.size() != cached.store.files_written.size() ||
      !CopiesReadable(cached.store)) {
    *why = "unreadable";
    return std::nullopt;
  }
  return cached;
}

ModelStore BuildModelCached(const std::string& model_file, const BuildOptions& options,
                            const std::string& cache_file) {
  std::string model_bytes;
  if (options.diaglevel >= 2 || !ReadBytes(model_file, &model_bytes))
    return BuildModel(model_file, options);
  const Clock::time_point start = Clock::now();
  const std::string key = KeyText(model_file, model_bytes, options);
  std::optional<CachedModel> cached = LoadCache(cache_file, key, options.diaglevel);
  if (cached && RewriteFiles(*cached)) {
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (const std::string& line : cached->lines) Say(ReplayedLine(line, seconds));
    return std::move(cached->store);
  }
  CachedModel built = BuildCapturing(model_file, options);
  WriteCache(cache_file, key, &built);
  return std::move(built.store);
}

}  // namespace kx::model

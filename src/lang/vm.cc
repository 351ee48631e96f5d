// The byte-code VM: the storage of a Program, its evaluation, its listing, and the
// domain-fault report.
#include "lang/program.h"

#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "base/check.h"
#include "base/report.h"
#include "base/text.h"

namespace kx::lang {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

#if defined(__GNUC__)
#define KX_VM_INLINE __attribute__((always_inline)) inline
#else
#define KX_VM_INLINE inline
#endif

// The dispatch loop: runs instructions [begin, end) of one segment, where `code` points at
// instruction `begin`; one switch over a flat instruction array, each case one SSA write.
// Domain faults are counted and give NaN; they never stop the evaluation. It is inlined into
// each caller: a dispatch branch of its own per call site predicts better than one shared one.
KX_VM_INLINE void Run(const Instr* code, const double* k, int begin, int end, const double* in,
                      double* w, DomainErrors* errs) {
  DomainErrors ignored;
  if (errs == nullptr) errs = &ignored;
  // The code generator puts a segment's loads first; they need no dispatch, only a choice of
  // source array (kConst is 0, kInput is 1).
  const double* const sources[2] = {k, in};
  int i = begin;
  for (; i < end && code[i - begin].op <= static_cast<int>(Op::kInput); ++i)
    w[i] = sources[code[i - begin].op][code[i - begin].a];
  for (; i < end; ++i) {
    const Instr c = code[i - begin];
    switch (static_cast<Op>(c.op)) {
      case Op::kConst: w[i] = k[c.a]; break;
      case Op::kInput: w[i] = in[c.a]; break;
      case Op::kAdd: w[i] = w[c.a] + w[c.b]; break;
      case Op::kSub: w[i] = w[c.a] - w[c.b]; break;
      case Op::kMul: w[i] = w[c.a] * w[c.b]; break;
      case Op::kDiv: {
        const double d = w[c.b];
        if (d != 0) {
          w[i] = w[c.a] / d;
        } else {
          ++errs->divide_by_zero;
          w[i] = kNaN;
        }
        break;
      }
      case Op::kPow: w[i] = std::pow(w[c.a], w[c.b]); break;
      case Op::kNeg: w[i] = -w[c.a]; break;
      case Op::kSquare: w[i] = w[c.a] * w[c.a]; break;
      case Op::kSign: {
        const double x = w[c.a];
        w[i] = x > 0 ? 1.0 : (x < 0 ? -1.0 : 0.0);
        break;
      }
      case Op::kAbs: w[i] = std::fabs(w[c.a]); break;
      case Op::kExp: w[i] = std::exp(w[c.a]); break;
      case Op::kLog10: {
        const double x = w[c.a];
        if (x > 0) {
          w[i] = std::log10(x);
        } else {
          ++errs->log10_negative;
          w[i] = kNaN;
        }
        break;
      }
      case Op::kLog: {
        const double x = w[c.a];
        if (x > 0) {
          w[i] = std::log(x);
        } else {
          ++errs->log_negative;
          w[i] = kNaN;
        }
        break;
      }
      case Op::kSqrt: {
        const double x = w[c.a];
        if (x >= 0) {
          w[i] = std::sqrt(x);
        } else {
          ++errs->sqrt_negative;
          w[i] = kNaN;
        }
        break;
      }
      case Op::kSinh: w[i] = std::sinh(w[c.a]); break;
      case Op::kCosh: w[i] = std::cosh(w[c.a]); break;
      case Op::kTanh: w[i] = std::tanh(w[c.a]); break;
      case Op::kSin: w[i] = std::sin(w[c.a]); break;
      case Op::kCos: w[i] = std::cos(w[c.a]); break;
      case Op::kTan: w[i] = std::tan(w[c.a]); break;
      case Op::kAsin: {
        const double x = w[c.a];
        if (x >= -1 && x <= 1) {
          w[i] = std::asin(x);
        } else {
          ++errs->asin_illegal;
          w[i] = kNaN;
        }
        break;
      }
      case Op::kAcos: {
        const double x = w[c.a];
        if (x >= -1 && x <= 1) {
          w[i] = std::acos(x);
        } else {
          ++errs->acos_illegal;
          w[i] = kNaN;
        }
        break;
      }
      case Op::kAtan: w[i] = std::atan(w[c.a]); break;
      case Op::kErfc: w[i] = std::erfc(w[c.a]); break;
      case Op::kErf: w[i] = std::erf(w[c.a]); break;
    }
  }
}

}  // namespace

void DomainErrors::Report() const {
  const std::pair<const char*, long> lines[] = {
      {"Count: Division by zero", divide_by_zero},
      {"Count: Argument of LOG10 negative", log10_negative},
      {"Count: Argument of LOG negative", log_negative},
      {"Count: Argument of SQRT negative", sqrt_negative},
      {"Count: Argument of ASIN illegal", asin_illegal},
      {"Count: Argument of ACOS illegal", acos_illegal},
  };
  for (const auto& [label, count] : lines) Sayf("{:<36}{:>12}", label, count);
}

// Code storage. Programs are compiled one after another and evaluated in the same order, so
// the pieces of consecutive programs are carved next to each other from large chunks: one
// series of chunks for the hot pieces, one for the cold pieces. A pass over the equations then
// reads each series front to back, which the hardware prefetches, and a residual pass never
// touches derivative code. Each compiling thread carves from chunks of its own.
namespace {

constexpr size_t kChunkBytes = size_t{64} << 10;
constexpr size_t kOwnPieceBytes = kChunkBytes / 8;  // larger pieces get their own allocation

struct ChunkSeries {
  std::shared_ptr<std::byte[]> chunk;  // the chunk being filled; programs share its ownership
  size_t used = 0;                     // bytes of `chunk` carved so far
};

thread_local ChunkSeries hot_series;
thread_local ChunkSeries cold_series;

size_t RoundToWord(size_t bytes) { return (bytes + 7) & ~size_t{7}; }

// A piece of `bytes` bytes that owns a share of the chunk it lies in.
std::shared_ptr<std::byte> Carve(ChunkSeries* series, size_t bytes) {
  bytes = RoundToWord(bytes);
  if (bytes > kOwnPieceBytes) {
    std::shared_ptr<std::byte[]> own(new std::byte[bytes]);
    return std::shared_ptr<std::byte>(own, own.get());
  }
  if (series->chunk == nullptr || series->used + bytes > kChunkBytes) {
    series->chunk.reset(new std::byte[kChunkBytes]);
    series->used = 0;
  }
  std::shared_ptr<std::byte> piece(series->chunk, series->chunk.get() + series->used);
  series->used += bytes;
  return piece;
}

// Copies `parts` one after another to `at`; each part's size must keep the next one aligned.
void CopyParts(std::byte* at, std::initializer_list<std::span<const std::byte>> parts) {
  for (const auto& part : parts) {
    if (!part.empty()) std::memcpy(at, part.data(), part.size());
    at += part.size();
  }
}

}  // namespace

size_t Program::ColdHeadBytes() const {
  return RoundToWord(sizeof(int32_t) * (num_inputs_ + num_pairs_) + sizeof(HessPair) * num_pairs_);
}

void Program::Pack(std::span<const double> consts, std::span<const Instr> code,
                   std::span<const int32_t> out, std::span<const HessPair> pairs) {
  num_consts_ = static_cast<int32_t>(consts.size());
  size_ = static_cast<int32_t>(code.size());
  num_pairs_ = static_cast<int32_t>(pairs.size());
  KX_CHECK(static_cast<int>(out.size()) == num_inputs_ + num_pairs_);
  const std::span<const Instr> residual = code.first(end_residual_);
  const std::span<const Instr> derivative = code.subspan(end_residual_);
  std::shared_ptr<std::byte> hot =
      Carve(&hot_series, consts.size_bytes() + residual.size_bytes());
  CopyParts(hot.get(), {std::as_bytes(consts), std::as_bytes(residual)});
  std::shared_ptr<std::byte> cold = Carve(&cold_series, ColdHeadBytes() + derivative.size_bytes());
  CopyParts(cold.get(), {std::as_bytes(out), std::as_bytes(pairs)});
  CopyParts(cold.get() + ColdHeadBytes(), {std::as_bytes(derivative)});
  hot_ = std::move(hot);
  cold_ = std::move(cold);
}

double Program::Residual(const double* in, double* work, DomainErrors* errs) const {
  Run(residual_code(), consts(), 0, end_residual_, in, work, errs);
  return work[end_residual_ - 1];
}

double Program::Gradient(const double* in, double* work, double* grad,
                         DomainErrors* errs) const {
  const double* k = consts();
  Run(residual_code(), k, 0, end_residual_, in, work, errs);
  Run(derivative_code(), k, end_residual_, end_first_, in, work, errs);
  const int32_t* g = out();
  for (int i = 0; i < num_inputs_; ++i) grad[i] = work[g[i]];
  return work[end_residual_ - 1];
}

double Program::Hessian(const double* in, double* work, double* grad, double* hess,
                        DomainErrors* errs) const {
  const double* k = consts();
  Run(residual_code(), k, 0, end_residual_, in, work, errs);
  Run(derivative_code(), k, end_residual_, size_, in, work, errs);
  const int32_t* g = out();
  for (int i = 0; i < num_inputs_; ++i) grad[i] = work[g[i]];
  const int32_t* h = g + num_inputs_;
  for (int p = 0; p < num_pairs_; ++p) hess[p] = work[h[p]];
  return work[end_residual_ - 1];
}

namespace {

std::string ListInstr(const Instr& c, int i, const double* consts) {
  const Op op = static_cast<Op>(c.op);
  std::string line = fmt::format("{:6}  {:<7}", i, OpName(op));
  if (op == Op::kConst) return line + " " + FormatReal(consts[c.a]);
  if (op == Op::kInput) return line + fmt::format(" in[{}]", static_cast<int>(c.a));
  line += fmt::format(" w{}", static_cast<int>(c.a));
  if (OpArity(op) == 2) line += fmt::format(" w{}", static_cast<int>(c.b));
  return line;
}

}  // namespace

std::string Program::Listing() const {
  std::string text;
  const int ends[3] = {end_residual_, end_first_, size_};
  const char* titles[3] = {"Byte Code", "1st Deriv", "2nd Deriv"};
  int begin = 0;
  for (int s = 0; s < 3; ++s) {
    text += fmt::format("{} {}\n", titles[s], ends[s] - begin);
    for (int i = begin; i < ends[s]; ++i) text += ListInstr(instr(i), i, consts()) + "\n";
    begin = ends[s];
  }
  const int32_t* slot = out();
  text += fmt::format("residual = w{}\n", end_residual_ - 1);
  for (int k = 0; k < num_inputs_; ++k) text += fmt::format("d/d in[{}] = w{}\n", k, slot[k]);
  const HessPair* pair = pairs();
  for (int p = 0; p < num_pairs_; ++p)
    text += fmt::format("d2/d in[{}] d in[{}] = w{}\n", pair[p].i, pair[p].j,
                        slot[num_inputs_ + p]);
  return text;
}

}  // namespace kx::lang

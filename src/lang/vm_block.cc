// Block evaluation: one program over many copies at once. The work area is instruction-major
// (slot i of lane l at w[i * stride + l]), so every instruction is one short loop over the
// lanes that the compiler turns into vector code; the dispatch cost is paid once per block.
// Domain faults are counted per lane and give NaN, as in the single-copy VM.
#include <algorithm>
#include <cmath>
#include <limits>

#include "lang/program.h"

namespace kx::lang {
namespace {

#if defined(__GNUC__)
#define KX_BLOCK_INLINE __attribute__((always_inline)) inline
#else
#define KX_BLOCK_INLINE inline
#endif

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Applies `f` to every lane of operand a.
template <typename F>
inline void Unary(double* __restrict o, const double* __restrict a, int lanes, F f) {
  for (int l = 0; l < lanes; ++l) o[l] = f(a[l]);
}

template <typename F>
inline void Binary(double* __restrict o, const double* __restrict a, const double* __restrict b,
                   int lanes, F f) {
  for (int l = 0; l < lanes; ++l) o[l] = f(a[l], b[l]);
}

// A function defined only where `ok` holds: NaN elsewhere, each such lane counted.
template <typename Ok, typename F>
inline void Guarded(double* __restrict o, const double* __restrict a, int lanes, long* count,
                    Ok ok, F f) {
  long bad = 0;
  for (int l = 0; l < lanes; ++l) {
    const double x = a[l];
    const bool good = ok(x);
    bad += !good;
    o[l] = good ? f(x) : kNaN;
  }
  *count += bad;
}

// What every instruction of one block run reads and writes.
struct Block {
  const double* k;                 // constants
  const double* values;            // the point by model column
  const int32_t* const* cols;      // input columns of each lane
  int lanes;
  int stride;
  double* w;                       // work area, instruction-major
  const Program::Tabled* tabled;   // next tabled instruction
  const Program::Tabled* tabled_end;
  bool constants_ready;
  DomainErrors* errs;
};

// Runs instruction i (code c) over the lanes.
KX_BLOCK_INLINE void Step(Block& x, const Instr c, int i) {
  const int lanes = x.lanes, stride = x.stride;
  double* __restrict o = x.w + static_cast<long>(i) * stride;
  while (x.tabled != x.tabled_end && x.tabled->instr < i) ++x.tabled;
  if (x.tabled != x.tabled_end && x.tabled->instr == i) {
    const double* table = x.tabled->table;
    const int input = x.tabled->input;
    for (int l = 0; l < lanes; ++l) o[l] = table[x.cols[l][input]];
    ++x.tabled;
    return;
  }
  const Op op = static_cast<Op>(c.op);
  if (op == Op::kConst) {
    if (x.constants_ready) return;
    const double v = x.k[c.a];
    for (int l = 0; l < stride; ++l) o[l] = v;
    return;
  }
  if (op == Op::kInput) {
    const int input = static_cast<int>(c.a);
    for (int l = 0; l < lanes; ++l) o[l] = x.values[x.cols[l][input]];
    return;
  }
  const double* a = x.w + static_cast<long>(c.a) * stride;
  const double* b = x.w + static_cast<long>(c.b) * stride;
  DomainErrors* errs = x.errs;
  switch (op) {
    case Op::kConst:
    case Op::kInput: break;
    case Op::kAdd: Binary(o, a, b, lanes, [](double x, double y) { return x + y; }); break;
    case Op::kSub: Binary(o, a, b, lanes, [](double x, double y) { return x - y; }); break;
    case Op::kMul: Binary(o, a, b, lanes, [](double x, double y) { return x * y; }); break;
    case Op::kDiv: {
      long bad = 0;
      for (int l = 0; l < lanes; ++l) {
        const double d = b[l];
        bad += d == 0;
        o[l] = d != 0 ? a[l] / d : kNaN;
      }
      errs->divide_by_zero += bad;
      break;
    }
    case Op::kPow:
      Binary(o, a, b, lanes, [](double x, double y) { return std::pow(x, y); });
      break;
    case Op::kNeg: Unary(o, a, lanes, [](double x) { return -x; }); break;
    case Op::kSquare: Unary(o, a, lanes, [](double x) { return x * x; }); break;
    case Op::kSign:
      Unary(o, a, lanes, [](double x) { return x > 0 ? 1.0 : (x < 0 ? -1.0 : 0.0); });
      break;
    case Op::kAbs: Unary(o, a, lanes, [](double x) { return std::fabs(x); }); break;
    case Op::kExp: Unary(o, a, lanes, [](double x) { return std::exp(x); }); break;
    case Op::kLog10:
      Guarded(o, a, lanes, &errs->log10_negative, [](double x) { return x > 0; },
              [](double x) { return std::log10(x); });
      break;
    case Op::kLog:
      Guarded(o, a, lanes, &errs->log_negative, [](double x) { return x > 0; },
              [](double x) { return std::log(x); });
      break;
    case Op::kSqrt:
      Guarded(o, a, lanes, &errs->sqrt_negative, [](double x) { return x >= 0; },
              [](double x) { return std::sqrt(x); });
      break;
    case Op::kSinh: Unary(o, a, lanes, [](double x) { return std::sinh(x); }); break;
    case Op::kCosh: Unary(o, a, lanes, [](double x) { return std::cosh(x); }); break;
    case Op::kTanh: Unary(o, a, lanes, [](double x) { return std::tanh(x); }); break;
    case Op::kSin: Unary(o, a, lanes, [](double x) { return std::sin(x); }); break;
    case Op::kCos: Unary(o, a, lanes, [](double x) { return std::cos(x); }); break;
    case Op::kTan: Unary(o, a, lanes, [](double x) { return std::tan(x); }); break;
    case Op::kAsin:
      Guarded(o, a, lanes, &errs->asin_illegal, [](double x) { return x >= -1 && x <= 1; },
              [](double x) { return std::asin(x); });
      break;
    case Op::kAcos:
      Guarded(o, a, lanes, &errs->acos_illegal, [](double x) { return x >= -1 && x <= 1; },
              [](double x) { return std::acos(x); });
      break;
    case Op::kAtan: Unary(o, a, lanes, [](double x) { return std::atan(x); }); break;
    case Op::kErfc: Unary(o, a, lanes, [](double x) { return std::erfc(x); }); break;
    case Op::kErf: Unary(o, a, lanes, [](double x) { return std::erf(x); }); break;
  }
}

}  // namespace

void Program::RunBlock(Part upto, const double* values, const int32_t* const* cols, int lanes,
                       int stride, double* w, std::span<const Tabled> tabled,
                       bool constants_ready, std::span<const int32_t> only,
                       DomainErrors* errs) const {
  DomainErrors ignored;
  Block x{consts(), values, cols, lanes, stride, w, tabled.data(), tabled.data() + tabled.size(),
          constants_ready, errs == nullptr ? &ignored : errs};
  if (!only.empty()) {
    for (const int32_t i : only) Step(x, instr(i), i);
    return;
  }
  const Instr* code = residual_code();
  for (int i = 0; i < end_residual_; ++i) Step(x, code[i], i);
  code = derivative_code();
  for (int i = end_residual_; i < PartEnd(upto); ++i) Step(x, code[i - end_residual_], i);
}

std::vector<int32_t> Program::Needed(Part part) const {
  const int end = PartEnd(part);
  std::vector<char> live(end, 0);
  if (part == Part::kResidual) live[end_residual_ - 1] = 1;
  const int32_t* slots = out();
  if (part == Part::kFirst)
    for (int k = 0; k < num_inputs_; ++k) live[slots[k]] = 1;
  if (part == Part::kSecond)
    for (int p = 0; p < num_pairs_; ++p) live[slots[num_inputs_ + p]] = 1;
  std::vector<int32_t> needed;
  for (int i = end - 1; i >= 0; --i) {
    const Instr& c = instr(i);
    const Op op = static_cast<Op>(c.op);
    if (!live[i] && !OpCanFault(op)) continue;
    live[i] = 1;
    needed.push_back(i);
    if (OpArity(op) >= 1) live[c.a] = 1;
    if (OpArity(op) == 2) live[c.b] = 1;
  }
  std::reverse(needed.begin(), needed.end());
  return needed;
}

namespace {

// Functions defined everywhere: a table of them counts no fault that a row would have.
bool Tableable(Op op) {
  switch (op) {
    case Op::kExp:
    case Op::kSinh:
    case Op::kCosh:
    case Op::kTanh:
    case Op::kSin:
    case Op::kCos:
    case Op::kTan:
    case Op::kAtan:
    case Op::kErf:
    case Op::kErfc:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::vector<Program::InputFunction> Program::InputFunctions() const {
  std::vector<InputFunction> found;
  for (int i = 0; i < size_; ++i) {
    const Instr& c = instr(i);
    const Op op = static_cast<Op>(c.op);
    if (!Tableable(op)) continue;
    const Instr& arg = instr(static_cast<int>(c.a));
    if (static_cast<Op>(arg.op) != Op::kInput) continue;
    found.push_back({i, op, static_cast<int32_t>(arg.a)});
  }
  return found;
}

}  // namespace kx::lang

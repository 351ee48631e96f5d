// Block evaluation: one program over many copies at once. The work area is instruction-major
// (slot i of lane l at w[i * stride + l]), so every instruction is one short loop over the
// lanes that the compiler turns into vector code; the dispatch cost is paid once per block.
// Domain faults are counted per lane and give NaN, as in the single-copy VM.
#include <cmath>
#include <limits>

#include "lang/program.h"

namespace kx::lang {
namespace {

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

// Runs instructions [begin, end); `tabled` advances past the tabled ones it meets.
void RunLanes(const Instr* code, const double* k, int begin, int end, const double* values,
              const int32_t* const* cols, int lanes, int stride, double* w,
              const Program::Tabled** tabled, const Program::Tabled* tabled_end,
              bool constants_ready, DomainErrors* errs) {
  for (int i = begin; i < end; ++i) {
    const Instr c = code[i - begin];
    double* __restrict o = w + static_cast<long>(i) * stride;
    if (*tabled != tabled_end && (*tabled)->instr == i) {
      const double* table = (*tabled)->table;
      const int input = (*tabled)->input;
      for (int l = 0; l < lanes; ++l) o[l] = table[cols[l][input]];
      ++*tabled;
      continue;
    }
    const Op op = static_cast<Op>(c.op);
    if (op == Op::kConst) {
      if (constants_ready) continue;
      const double v = k[c.a];
      for (int l = 0; l < stride; ++l) o[l] = v;
      continue;
    }
    if (op == Op::kInput) {
      const int input = static_cast<int>(c.a);
      for (int l = 0; l < lanes; ++l) o[l] = values[cols[l][input]];
      continue;
    }
    const double* a = w + static_cast<long>(c.a) * stride;
    const double* b = w + static_cast<long>(c.b) * stride;
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
}

}  // namespace

void Program::RunBlock(Part upto, const double* values, const int32_t* const* cols, int lanes,
                       int stride, double* w, std::span<const Tabled> tabled,
                       bool constants_ready, DomainErrors* errs) const {
  DomainErrors ignored;
  if (errs == nullptr) errs = &ignored;
  const double* k = consts();
  const Tabled* next = tabled.data();
  const Tabled* last = tabled.data() + tabled.size();
  RunLanes(residual_code(), k, 0, end_residual_, values, cols, lanes, stride, w, &next, last,
           constants_ready, errs);
  if (upto == Part::kResidual) return;
  RunLanes(derivative_code(), k, end_residual_, PartEnd(upto), values, cols, lanes, stride, w,
           &next, last, constants_ready, errs);
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

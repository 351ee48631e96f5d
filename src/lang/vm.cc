// The byte-code VM: evaluation of a Program, its listing, and the domain-fault report.
#include "lang/program.h"

#include <cmath>
#include <limits>
#include <string>

#include "base/report.h"
#include "base/text.h"

namespace kx::lang {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

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

// The dispatch loop: one switch over a flat instruction array, each case one SSA write.
// Domain faults are counted and give NaN; they never stop the evaluation.
void Program::Run(int begin, int end, const double* in, double* w, DomainErrors* errs) const {
  DomainErrors ignored;
  if (errs == nullptr) errs = &ignored;
  const Instr* code = code_.data();
  const double* k = consts_.data();
  for (int i = begin; i < end; ++i) {
    const Instr c = code[i];
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

double Program::Residual(const double* in, double* work, DomainErrors* errs) const {
  Run(0, end_residual_, in, work, errs);
  return work[out_[0]];
}

double Program::Gradient(const double* in, double* work, double* grad,
                         DomainErrors* errs) const {
  Run(0, end_first_, in, work, errs);
  for (int k = 0; k < num_inputs_; ++k) grad[k] = work[out_[1 + k]];
  return work[out_[0]];
}

double Program::Hessian(const double* in, double* work, double* grad, double* hess,
                        DomainErrors* errs) const {
  Run(0, static_cast<int>(code_.size()), in, work, errs);
  for (int k = 0; k < num_inputs_; ++k) grad[k] = work[out_[1 + k]];
  const int32_t* h = out_.data() + 1 + num_inputs_;
  for (size_t p = 0; p < hess_pairs_.size(); ++p) hess[p] = work[h[p]];
  return work[out_[0]];
}

namespace {

std::string ListInstr(const Instr& c, int i, const std::vector<double>& consts) {
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
  std::string out;
  const int ends[3] = {end_residual_, end_first_, static_cast<int>(code_.size())};
  const char* titles[3] = {"Byte Code", "1st Deriv", "2nd Deriv"};
  int begin = 0;
  for (int s = 0; s < 3; ++s) {
    out += fmt::format("{} {}\n", titles[s], ends[s] - begin);
    for (int i = begin; i < ends[s]; ++i) out += ListInstr(code_[i], i, consts_) + "\n";
    begin = ends[s];
  }
  out += fmt::format("residual = w{}\n", out_[0]);
  for (int k = 0; k < num_inputs_; ++k) out += fmt::format("d/d in[{}] = w{}\n", k, out_[1 + k]);
  for (size_t p = 0; p < hess_pairs_.size(); ++p)
    out += fmt::format("d2/d in[{}] d in[{}] = w{}\n", hess_pairs_[p].i, hess_pairs_[p].j,
                       out_[1 + num_inputs_ + p]);
  return out;
}

}  // namespace kx::lang

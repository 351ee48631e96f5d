#include "lang/opcodes.h"

#include <array>
#include <cmath>
#include <limits>
#include <string>

#include "base/report.h"

namespace kx::lang {
namespace {

struct OpInfo {
  std::string_view name;  // mnemonic; for functions, the name used in model text
  int arity;              // number of work operands
};

// Parallel to enum Op; one row per opcode, with its derivative rule (d/da, d/db) alongside.
constexpr std::array<OpInfo, 26> kOpTable = {{
    {"const", 0},     // derivative 0
    {"input", 0},     // derivative 1 for its own input
    {"add", 2},       // d/da = 1, d/db = 1
    {"sub", 2},       // d/da = 1, d/db = -1
    {"mul", 2},       // d/da = b, d/db = a
    {"div", 2},       // d/da = 1/b, d/db = -(a/b)/b
    {"pow", 2},       // d/da = b*a^(b-1), d/db = a^b*ln(a)
    {"neg", 1},       // d/da = -1
    {"square", 1},    // d/da = 2*a
    {"sign", 1},      // d/da = 0
    {"abs", 1},       // d/da = sign(a)
    {"exp", 1},       // d/da = exp(a)
    {"log10", 1},     // d/da = (1/ln 10)/a
    {"log", 1},       // d/da = 1/a
    {"sqrt", 1},      // d/da = 0.5/sqrt(a)
    {"sinh", 1},      // d/da = cosh(a)
    {"cosh", 1},      // d/da = sinh(a)
    {"tanh", 1},      // d/da = 1 - tanh(a)^2
    {"sin", 1},       // d/da = cos(a)
    {"cos", 1},       // d/da = -sin(a)
    {"tan", 1},       // d/da = 1 + tan(a)^2
    {"asin", 1},      // d/da = 1/sqrt(1 - a^2)
    {"acos", 1},      // d/da = -1/sqrt(1 - a^2)
    {"atan", 1},      // d/da = 1/(1 + a^2)
    {"erfc", 1},      // d/da = -(2/sqrt(pi))*exp(-a^2)
    {"erf", 1},       // d/da = (2/sqrt(pi))*exp(-a^2)
}};
static_assert(kOpTable.size() == kNumOps, "kOpTable must have one row per opcode");
static_assert(static_cast<int>(Op::kErf) - static_cast<int>(Op::kAbs) + 1 == kNumFunctions,
              "the function opcodes must be contiguous, in function-number order");

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

}  // namespace

bool OpCanFault(Op op) {
  switch (op) {
    case Op::kDiv: case Op::kLog: case Op::kLog10: case Op::kSqrt: case Op::kAsin:
    case Op::kAcos:
      return true;
    default:
      return false;
  }
}

namespace {

double Sign(double a) { return a > 0 ? 1.0 : (a < 0 ? -1.0 : 0.0); }

// Functions whose argument may fall outside their domain; `fault` says which fault.
double ApplyChecked(Op op, double a, Fault* fault) {
  switch (op) {
    case Op::kLog10:
      if (a > 0) return std::log10(a);
      *fault = Fault::kLog10Negative;
      return kNaN;
    case Op::kLog:
      if (a > 0) return std::log(a);
      *fault = Fault::kLogNegative;
      return kNaN;
    case Op::kSqrt:
      if (a >= 0) return std::sqrt(a);
      *fault = Fault::kSqrtNegative;
      return kNaN;
    case Op::kAsin:
      if (a >= -1 && a <= 1) return std::asin(a);
      *fault = Fault::kAsinIllegal;
      return kNaN;
    case Op::kAcos:
      if (a >= -1 && a <= 1) return std::acos(a);
      *fault = Fault::kAcosIllegal;
      return kNaN;
    default:
      return kNaN;
  }
}

}  // namespace

std::string_view OpName(Op op) { return kOpTable[static_cast<int>(op)].name; }
int OpArity(Op op) { return kOpTable[static_cast<int>(op)].arity; }

int FunctionNumber(std::string_view name) {
  for (int n = 1; n <= kNumFunctions; ++n)
    if (kOpTable[static_cast<int>(Op::kAbs) + n - 1].name == name) return n;
  return 0;
}

Op FunctionOp(int number) {
  if (number < 1 || number > kNumFunctions)
    Fatal({"*** Parser error: Function number " + std::to_string(number) + " out of range"});
  return static_cast<Op>(static_cast<int>(Op::kAbs) + number - 1);
}

double Apply(Op op, double a, double b, Fault* fault) {
  *fault = Fault::kNone;
  switch (op) {
    case Op::kAdd: return a + b;
    case Op::kSub: return a - b;
    case Op::kMul: return a * b;
    case Op::kDiv:
      if (b != 0) return a / b;
      *fault = Fault::kDivideByZero;
      return kNaN;
    case Op::kPow: return std::pow(a, b);
    case Op::kNeg: return -a;
    case Op::kSquare: return a * a;
    case Op::kSign: return Sign(a);
    case Op::kAbs: return std::fabs(a);
    case Op::kExp: return std::exp(a);
    case Op::kSinh: return std::sinh(a);
    case Op::kCosh: return std::cosh(a);
    case Op::kTanh: return std::tanh(a);
    case Op::kSin: return std::sin(a);
    case Op::kCos: return std::cos(a);
    case Op::kTan: return std::tan(a);
    case Op::kAtan: return std::atan(a);
    case Op::kErfc: return std::erfc(a);
    case Op::kErf: return std::erf(a);
    case Op::kLog10:
    case Op::kLog:
    case Op::kSqrt:
    case Op::kAsin:
    case Op::kAcos: return ApplyChecked(op, a, fault);
    case Op::kConst:
    case Op::kInput: break;
  }
  return kNaN;
}

}  // namespace kx::lang

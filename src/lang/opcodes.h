// lang/opcodes: the instruction set shared by the expression graph and the byte-code VM.
//
// A Program is one array of 64-bit instructions in SSA form: instruction i writes work[i] and
// reads only slots written before it. Operand `a` and `b` are work slots unless the table
// below says otherwise. The same codes label the nodes of the expression graph, so the
// compiler, the derivative generator and the VM speak one vocabulary.
#pragma once

#include <cstdint>
#include <string_view>

namespace kx::lang {

// clang-format off
enum class Op : uint8_t {
  // name         operands      effect
  kConst,      // k             w[i] = consts[k]
  kInput,      // n             w[i] = in[n]
  kAdd,        // a b           w[i] = w[a] + w[b]
  kSub,        // a b           w[i] = w[a] - w[b]
  kMul,        // a b           w[i] = w[a] * w[b]
  kDiv,        // a b           w[i] = w[a] / w[b]            (b == 0: counted, NaN)
  kPow,        // a b           w[i] = w[a] ^ w[b]
  kNeg,        // a             w[i] = -w[a]
  kSquare,     // a             w[i] = w[a] * w[a]
  kSign,       // a             w[i] = sign(w[a]) in {-1, 0, 1}
  kAbs,        // a             w[i] = |w[a]|                 function 1
  kExp,        // a             w[i] = exp(w[a])              function 2
  kLog10,      // a             w[i] = log10(w[a])            function 3  (a <= 0: counted, NaN)
  kLog,        // a             w[i] = ln(w[a])               function 4  (a <= 0: counted, NaN)
  kSqrt,       // a             w[i] = sqrt(w[a])             function 5  (a < 0: counted, NaN)
  kSinh,       // a             w[i] = sinh(w[a])             function 6
  kCosh,       // a             w[i] = cosh(w[a])             function 7
  kTanh,       // a             w[i] = tanh(w[a])             function 8
  kSin,        // a             w[i] = sin(w[a])              function 9
  kCos,        // a             w[i] = cos(w[a])              function 10
  kTan,        // a             w[i] = tan(w[a])              function 11
  kAsin,       // a             w[i] = asin(w[a])             function 12 (|a| > 1: counted, NaN)
  kAcos,       // a             w[i] = acos(w[a])             function 13 (|a| > 1: counted, NaN)
  kAtan,       // a             w[i] = atan(w[a])             function 14
  kErfc,       // a             w[i] = erfc(w[a])             function 15
  kErf,        // a             w[i] = erf(w[a])              function 16
};
// clang-format on
//
// Notes:
//   - kConst's operand indexes the Program's constant pool; kInput's indexes `in`. Neither is
//     a work slot. Every other operand is a work slot below i.
//   - Loads lead each segment: the code generator emits a segment's kConst and kInput first,
//     and the VM copies that run by indexing {consts, in} with the opcode (kConst 0, kInput 1)
//     instead of dispatching on it.
//   - kAbs..kErf are the sixteen intrinsic functions in function-number order, so function
//     number n is opcode kAbs + (n - 1) (FunctionOp) and back (FunctionNumber).
//   - kSquare and kSign never come from model text: the simplifier turns x^2 and x*x into
//     kSquare, and the derivative of abs is sign. kSign has derivative 0, also at 0.
//   - Domain faults never stop an evaluation during a solve: the VM counts them in
//     DomainErrors and writes NaN. log and log10 of 0 count as a log fault, since -inf is of
//     no use to a solver. sqrt(0) is 0, but its derivative 0.5/sqrt(0) counts as a division by
//     zero. kPow follows std::pow and counts nothing: a negative base with a non-integer
//     exponent gives NaN, and 0^0 is 1.

inline constexpr int kNumOps = static_cast<int>(Op::kErf) + 1;
static_assert(static_cast<int>(Op::kConst) == 0 && static_cast<int>(Op::kInput) == 1,
              "the VM selects a load's source array by opcode");
inline constexpr int kNumFunctions = 16;

// One 64-bit instruction: opcode and two 28-bit operands (b unused by unary codes).
struct Instr {
  uint64_t op : 8;
  uint64_t a : 28;
  uint64_t b : 28;
};
static_assert(sizeof(Instr) == 8, "instructions are 64-bit entries");
inline constexpr int64_t kMaxOperand = (int64_t{1} << 28) - 1;

// Kinds of domain fault, in the order of the "Count: ..." report.
enum class Fault : uint8_t {
  kNone,
  kDivideByZero,
  kLog10Negative,
  kLogNegative,
  kSqrtNegative,
  kAsinIllegal,
  kAcosIllegal,
};

// Lower-case mnemonic of an opcode ("add", "sin").
std::string_view OpName(Op op);
// Number of work operands: 0 for kConst/kInput, 1 for unary codes, 2 for binary codes.
int OpArity(Op op);

// Whether the operation counts a domain fault for some argument (division by zero, log of a
// non-positive value, ...).
bool OpCanFault(Op op);

// Function number (1..16) of a function name, or 0 when `name` is not a function.
int FunctionNumber(std::string_view name);
// Opcode of function number n; a number outside 1..16 stops the run with
// "*** Parser error: Function number " n " out of range".
Op FunctionOp(int number);

// Evaluates one operation on values; `fault` receives the domain fault (kNone when clean).
// Constant folding and the one-time evaluation of constants use this; the VM inlines the same
// arithmetic in its dispatch loop.
double Apply(Op op, double a, double b, Fault* fault);

}  // namespace kx::lang

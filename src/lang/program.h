// lang/program: one compiled model expression. A Program holds the residual byte code and
// the byte code of its exact first and second derivatives in one instruction array, so one
// pass over shared subexpressions yields residual, gradient and Hessian entries.
//
// A Program never names model variables. It reads `num_inputs()` local inputs; the caller
// keeps, per copy of the equation (a horizon node, a data set), a column map that says which
// model column feeds each local input, gathers those values into `in`, and scatters the
// outputs. The same Program serves any number of copies.
//
// Call protocol:
//   Residual(in, work, errs)                         residual only
//   Gradient(in, work, grad, errs)                   residual, grad[k] = d r / d in[k]
//   Hessian(in, work, grad, hess, errs)              and hess[p] = d2 r / d in[i] d in[j]
//                                                    for pair p = hess_pairs()[p] (i >= j)
// `work` must hold at least work_size() doubles; it is scratch, reused between calls.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "lang/opcodes.h"

namespace kx::lang {

// Counts of domain errors met while evaluating during a solve. They never stop the run; the
// evaluation returns NaN for the affected value so that the solver backs off.
struct DomainErrors {
  long divide_by_zero = 0;
  long log10_negative = 0;
  long log_negative = 0;
  long sqrt_negative = 0;
  long asin_illegal = 0;
  long acos_illegal = 0;
  long Total() const {
    return divide_by_zero + log10_negative + log_negative + sqrt_negative + asin_illegal +
           acos_illegal;
  }
  // Prints the "Count: ..." lines.
  void Report() const;
};

// A local pair (i, j) with i >= j whose second derivative is not structurally zero.
struct HessPair {
  int32_t i;
  int32_t j;
};

class Program {
 public:
  int num_inputs() const { return num_inputs_; }
  int work_size() const { return static_cast<int>(code_.size()); }
  std::span<const HessPair> hess_pairs() const { return hess_pairs_; }
  // Instruction counts of the three segments ("Byte Code", "1st Deriv", "2nd Deriv").
  int residual_size() const { return end_residual_; }
  int first_size() const { return end_first_ - end_residual_; }
  int second_size() const { return static_cast<int>(code_.size()) - end_first_; }

  double Residual(const double* in, double* work, DomainErrors* errs) const;
  double Gradient(const double* in, double* work, double* grad, DomainErrors* errs) const;
  double Hessian(const double* in, double* work, double* grad, double* hess,
                 DomainErrors* errs) const;

  // Human-readable opcode listing (diagnostic files and golden tests).
  std::string Listing() const;

 private:
  friend class CodeGen;
  // Runs instructions [begin, end) of code_; the one dispatch loop of the VM.
  void Run(int begin, int end, const double* in, double* work, DomainErrors* errs) const;

  std::vector<Instr> code_;         // residual, then 1st-, then 2nd-derivative segment
  std::vector<double> consts_;      // constant pool of kConst
  std::vector<int32_t> out_;        // work slot of: the residual, each gradient entry
                                    // (num_inputs_), each Hessian pair (hess_pairs_ order)
  std::vector<HessPair> hess_pairs_;  // structurally non-zero local pairs, i >= j
  int num_inputs_ = 0;              // local inputs read through `in`
  int end_residual_ = 0;            // end of the residual segment in code_
  int end_first_ = 0;               // end of the first-derivative segment in code_
};

}  // namespace kx::lang

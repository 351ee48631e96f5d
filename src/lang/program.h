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

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
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
  int work_size() const { return size_; }
  std::span<const HessPair> hess_pairs() const {
    return {pairs(), static_cast<size_t>(num_pairs_)};
  }
  // Instruction counts of the three segments ("Byte Code", "1st Deriv", "2nd Deriv").
  int residual_size() const { return end_residual_; }
  int first_size() const { return end_first_ - end_residual_; }
  int second_size() const { return size_ - end_first_; }

  double Residual(const double* in, double* work, DomainErrors* errs) const;
  double Gradient(const double* in, double* work, double* grad, DomainErrors* errs) const;
  double Hessian(const double* in, double* work, double* grad, double* hess,
                 DomainErrors* errs) const;

  // Block evaluation (model/eval_plan): `lanes` copies of the program at once, each
  // instruction run over every copy before the next, so that one dispatch serves all of them
  // and the arithmetic runs in vector loops. Lane l reads input a from values[cols[l][a]].
  // `w` holds work_size() x stride doubles, instruction-major: slot i of lane l is
  // w[i * stride + l]; lanes <= stride. Runs the code up to the end of `upto`; the residual,
  // gradient and Hessian slots below then say where each result lies.
  //
  // Instructions that apply a function without domain faults directly to an input
  // (sin(in[a]), exp(in[a]), ...) may be `tabled`: the caller has computed the function of
  // every column once for all copies, and lane l takes table[cols[l][input]] instead (rows
  // over shifted slices, sin(t[1:n]) and sin(t[0:n-1]), then compute each sine once).
  // `tabled` lists such instructions in increasing order.
  enum class Part { kResidual, kFirst, kSecond };
  struct Tabled {
    int32_t instr;        // instruction index
    int32_t input;        // the input it applies its function to
    const double* table;  // the function's value by column
  };
  // A constant fills all `stride` lanes of its slot; with `constants_ready` the slots still
  // hold them from the previous block of this program (up to the same `upto`) and are kept.
  //
  // `only`, when not empty, lists the instructions to run (increasing, from Needed): the
  // others are skipped, and their slots hold nothing.
  void RunBlock(Part upto, const double* values, const int32_t* const* cols, int lanes,
                int stride, double* w, std::span<const Tabled> tabled, bool constants_ready,
                std::span<const int32_t> only, DomainErrors* errs) const;
  // The instructions up to the end of `part` that its own outputs need (kResidual: the
  // residual; kFirst: the gradient slots; kSecond: the Hessian slots), in increasing order.
  // An instruction that can count a domain fault is always kept, so a run over the list
  // counts the same faults as a run over everything.
  std::vector<int32_t> Needed(Part part) const;
  // The instructions that may be tabled: index, function and input of each, in order.
  struct InputFunction {
    int32_t instr;
    Op op;
    int32_t input;
  };
  std::vector<InputFunction> InputFunctions() const;
  // The end of the segments that `upto` runs (instruction index).
  int PartEnd(Part upto) const {
    return upto == Part::kResidual ? end_residual_ : upto == Part::kFirst ? end_first_ : size_;
  }
  int residual_slot() const { return end_residual_ - 1; }
  const int32_t* gradient_slots() const { return out(); }
  const int32_t* hessian_slots() const { return out() + num_inputs_; }

  // Human-readable opcode listing (diagnostic files and golden tests).
  std::string Listing() const;

  // Appends the program's sizes, constants, code, output slots and pairs to `out` (the
  // model's compile cache). Load reads one program so saved from the front of `in` and
  // advances it; false when `in` is too short or its sizes do not fit together.
  void Save(std::string* out) const;
  bool Load(std::string_view* in);

 private:
  friend class CodeGen;
  // Stores the parts into the two pieces below (`out`: gradient slots, then Hessian slots).
  void Pack(std::span<const double> consts, std::span<const Instr> code,
            std::span<const int32_t> out, std::span<const HessPair> pairs);

  static constexpr size_t kWord = 8;  // bytes of one constant or one instruction

  const double* consts() const { return reinterpret_cast<const double*>(hot_.get()); }
  const Instr* residual_code() const {
    return reinterpret_cast<const Instr*>(hot_.get() + kWord * num_consts_);
  }
  const int32_t* out() const { return reinterpret_cast<const int32_t*>(cold_.get()); }
  const HessPair* pairs() const {
    return reinterpret_cast<const HessPair*>(out() + num_inputs_ + num_pairs_);
  }
  // Bytes of the output slots and pairs at the head of the cold piece, rounded up to a word.
  size_t ColdHeadBytes() const;
  const Instr* derivative_code() const {
    return reinterpret_cast<const Instr*>(cold_.get() + ColdHeadBytes());
  }
  const Instr& instr(int i) const {
    return i < end_residual_ ? residual_code()[i] : derivative_code()[i - end_residual_];
  }

  // A Program's data lives in two read-only pieces carved, in compile order, from chunks shared
  // with the programs compiled before and after it (vm.cc), so that a pass over a model's
  // equations streams through memory. A residual pass reads only the hot pieces. Copies share
  // the pieces; a chunk is freed with the last program that uses it.
  std::shared_ptr<const std::byte> hot_;   // constants (num_consts_), residual code
  std::shared_ptr<const std::byte> cold_;  // gradient slots (num_inputs_), Hessian slots and
                                           // pairs (num_pairs_), then 1st- and 2nd-derivative
                                           // code starting on a word
  int32_t num_consts_ = 0;    // constants in the pool
  int32_t size_ = 0;          // instructions: residual, 1st-, 2nd-derivative segment
  int32_t num_pairs_ = 0;     // structurally non-zero local Hessian pairs, i >= j
  int32_t num_inputs_ = 0;    // local inputs read through `in`
  int32_t end_residual_ = 0;  // end of the residual segment; its last slot is the residual
  int32_t end_first_ = 0;     // end of the first-derivative segment
};

}  // namespace kx::lang

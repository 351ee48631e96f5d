// The byte form of a compiled program: the model's compile cache stores programs this way and
// packs them again on load, so a loaded program runs the very same code as a compiled one.
#include <cstring>
#include <vector>

#include "lang/program.h"

namespace kx::lang {
namespace {

template <typename T>
void AppendArray(std::string* out, const T* data, size_t count) {
  out->append(reinterpret_cast<const char*>(data), sizeof(T) * count);
}

// Copies `count` items of T from the front of `in`; false when `in` is too short.
template <typename T>
bool TakeArray(std::string_view* in, size_t count, std::vector<T>* items) {
  if (in->size() / sizeof(T) < count) return false;
  items->resize(count);
  if (count > 0) std::memcpy(items->data(), in->data(), sizeof(T) * count);
  in->remove_prefix(sizeof(T) * count);
  return true;
}

}  // namespace

void Program::Save(std::string* out) const {
  const int32_t sizes[] = {num_inputs_, num_consts_, size_, num_pairs_, end_residual_, end_first_};
  AppendArray(out, sizes, std::size(sizes));
  AppendArray(out, consts(), num_consts_);
  AppendArray(out, residual_code(), end_residual_);
  AppendArray(out, derivative_code(), size_ - end_residual_);
  AppendArray(out, this->out(), num_inputs_ + num_pairs_);
  AppendArray(out, pairs(), num_pairs_);
}

bool Program::Load(std::string_view* in) {
  std::vector<int32_t> sizes;
  if (!TakeArray(in, 6, &sizes)) return false;
  const int32_t inputs = sizes[0], num_consts = sizes[1], size = sizes[2], pairs = sizes[3];
  const int32_t end_residual = sizes[4], end_first = sizes[5];
  if (inputs < 0 || num_consts < 0 || pairs < 0 || end_residual < 1 || end_residual > end_first ||
      end_first > size)
    return false;
  std::vector<double> consts;
  std::vector<Instr> code;
  std::vector<int32_t> slots;
  std::vector<HessPair> pair_list;
  if (!TakeArray(in, num_consts, &consts) || !TakeArray(in, size, &code) ||
      !TakeArray(in, static_cast<size_t>(inputs) + pairs, &slots) ||
      !TakeArray(in, pairs, &pair_list))
    return false;
  num_inputs_ = inputs;
  end_residual_ = end_residual;
  end_first_ = end_first;
  Pack(consts, code, slots, pair_list);
  return true;
}

}  // namespace kx::lang

// base/boxed: a value that most owners leave empty, kept on the heap only once set, so that it
// costs its owner one pointer. Copies are deep: two owners never share it.
#pragma once

#include <memory>

namespace kx {

template <typename T>
class Boxed {
 public:
  Boxed() = default;
  Boxed(const Boxed& other) : value_(Copy(other)) {}
  Boxed(Boxed&&) noexcept = default;
  Boxed& operator=(const Boxed& other) {
    if (this != &other) value_ = Copy(other);
    return *this;
  }
  Boxed& operator=(Boxed&&) noexcept = default;

  bool has_value() const { return value_ != nullptr; }
  // The value, or an empty T when none was set.
  const T& get() const { return value_ ? *value_ : Empty(); }
  // The value to change, made empty first when none was set.
  T& mutable_value() {
    if (!value_) value_ = std::make_unique<T>();
    return *value_;
  }

 private:
  static std::unique_ptr<T> Copy(const Boxed& other) {
    return other.value_ ? std::make_unique<T>(*other.value_) : nullptr;
  }
  static const T& Empty() {
    static const T kEmpty{};
    return kEmpty;
  }
  std::unique_ptr<T> value_;
};

}  // namespace kx

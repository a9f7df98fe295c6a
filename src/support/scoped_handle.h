// Sole ownership of one system handle.
#ifndef ZU_SUPPORT_SCOPED_HANDLE_H_
#define ZU_SUPPORT_SCOPED_HANDLE_H_

#include <utility>

namespace zu {

// Traits give the handle's type (Value), the value that means "none" (kNone)
// and how to let go of one (Close, which keeps errno).
template <typename Traits>
class ScopedHandle {
 public:
  using Value = typename Traits::Value;
  ScopedHandle() = default;
  explicit ScopedHandle(Value value) noexcept : value_(value) {}
  ScopedHandle(ScopedHandle&& other) noexcept : value_(other.release()) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~ScopedHandle() { reset(); }

  [[nodiscard]] bool valid() const noexcept { return value_ != Traits::kNone; }
  [[nodiscard]] Value get() const noexcept { return value_; }
  [[nodiscard]] Value release() noexcept {
    return std::exchange(value_, Traits::kNone);
  }
  void reset(Value value = Traits::kNone) noexcept {
    const Value old = std::exchange(value_, value);
    if (old != Traits::kNone) Traits::Close(old);
  }

 private:
  Value value_ = Traits::kNone;
};

}  // namespace zu

#endif  // ZU_SUPPORT_SCOPED_HANDLE_H_

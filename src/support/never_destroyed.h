// Static objects that outlive the library's exit handlers.
#ifndef ZU_SUPPORT_NEVER_DESTROYED_H_
#define ZU_SUPPORT_NEVER_DESTROYED_H_

namespace zu {

// Holds a static object whose destructor never runs, because threads of a host
// that exits in disorder may still be using it.
template <typename T>
union NeverDestroyed {
  constexpr NeverDestroyed() : value() {}
  ~NeverDestroyed() {}
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T value;
};

}  // namespace zu

#endif  // ZU_SUPPORT_NEVER_DESTROYED_H_

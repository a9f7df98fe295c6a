// The queue of pending requests.
#ifndef ZU_SERVER_ZU_QUEUE_H_
#define ZU_SERVER_ZU_QUEUE_H_

#include <deque>
#include <memory>
#include <span>

// A first-in first-out queue of object references, without a lock of its own.
// It stands in the global namespace because the exported gXpcRequestQueue names
// its type.
struct ZuQueue {
 public:
  using Reference = std::shared_ptr<void>;

  void enqueue(Reference object) { array_.push_back(std::move(object)); }

  void enqueueElementsFromArray(std::span<const Reference> objects) {
    array_.insert(array_.end(), objects.begin(), objects.end());
  }

  // Takes every object of `other`, which is empty afterwards.
  void enqueueElementsFromQueue(ZuQueue& other) {
    if (&other == this) return;
    while (Reference object = other.dequeue()) enqueue(std::move(object));
  }

  // Both give null when the queue is empty.
  Reference dequeue() {
    Reference head = peek();
    if (head) array_.pop_front();
    return head;
  }
  Reference peek() const { return isEmpty() ? nullptr : array_.front(); }

  size_t size() const { return array_.size(); }
  bool isEmpty() const { return array_.empty(); }
  void clear() { array_.clear(); }

 private:
  std::deque<Reference> array_;
};

#endif  // ZU_SERVER_ZU_QUEUE_H_

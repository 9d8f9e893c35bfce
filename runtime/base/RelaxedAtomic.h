// A scalar property: read and written without the object's lock, so that another thread may do either at any
// time. Relaxed order is enough: a property is a setting, it publishes no other data.
#pragma once

#include <atomic>

namespace morvane {

template <class T>
class RelaxedAtomic {
 public:
  RelaxedAtomic(T value = T()) : m_value(value) {}
  operator T() const { return m_value.load(std::memory_order_relaxed); }
  RelaxedAtomic& operator=(T value) {
    m_value.store(value, std::memory_order_relaxed);
    return *this;
  }
  void increment() { m_value.fetch_add(1, std::memory_order_relaxed); }

 private:
  std::atomic<T> m_value;
};

}  // namespace morvane

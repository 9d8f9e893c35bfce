// A scalar property: read and written without the object's lock, so that another thread may do either at any
// time. Relaxed order is enough: a property is a setting, it publishes no other data. What tells a run that
// one was set is a ChangeCount.
#pragma once

#include <atomic>

namespace morvane {

// Looks like a plain T to whoever reads or sets it. T is a scalar.
template <class T>
class RelaxedAtomic {
 public:
  // Converts from and to T on purpose.
  RelaxedAtomic(T value = T()) : m_value(value) {}
  // The value as of some moment; two reads may differ.
  operator T() const { return m_value.load(std::memory_order_relaxed); }
  RelaxedAtomic& operator=(T value) {
    m_value.store(value, std::memory_order_relaxed);
    return *this;
  }

 private:
  std::atomic<T> m_value;
};

// Counts how often settings changed. It publishes them: who sees the new count sees what was set before it.
// It may wrap: who goes by it asks whether it is another one than before.
class ChangeCount {
 public:
  // Called behind the change, by any thread.
  void increment() { m_count.fetch_add(1, std::memory_order_release); }
  // Called in front of reading the settings.
  unsigned now() const { return m_count.load(std::memory_order_acquire); }

 private:
  std::atomic<unsigned> m_count{0};
};

}  // namespace morvane

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
  // Converts from and to T on purpose. Nobody else may know the object while it is being made.
  RelaxedAtomic(T value = T()) : m_value(value) {}
  // The value as of some moment; two reads may differ.
  operator T() const { return m_value.load(std::memory_order_relaxed); }
  // Sets it for all threads; it may take a moment until another one sees that.
  RelaxedAtomic& operator=(T value) {
    m_value.store(value, std::memory_order_relaxed);
    return *this;
  }

 private:
  // Lock-free for the scalars that are properties, so that reading one costs what a plain load does.
  std::atomic<T> m_value;
};

// Counts how often settings changed. It publishes them: who sees the new count sees what was set before it.
// It may wrap: who goes by it asks whether it is another one than before. One for each set of settings that
// is taken as a whole.
class ChangeCount {
 public:
  // Called behind the change, by any thread. Behind, because a run that saw the count first would take the
  // old setting for the new one, and not look again.
  void increment() { m_count.fetch_add(1, std::memory_order_release); }
  // Called in front of reading the settings.
  unsigned now() const { return m_count.load(std::memory_order_acquire); }

 private:
  // 0: nothing was set since the object was made.
  std::atomic<unsigned> m_count{0};
};

}  // namespace morvane

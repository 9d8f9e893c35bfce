// One raw deflate stream (RFC 1951) being inflated. Built over zlib, or over ISA-L where that was found.
#pragma once

#include <memory>

namespace morvane {

class RawInflate {
 public:
  enum class State { GoesOn, Finished, Damaged };

  RawInflate();
  ~RawInflate();
  RawInflate(const RawInflate&) = delete;
  RawInflate& operator=(const RawInflate&) = delete;

  // False when there is no memory.
  bool begin();
  void setInput(const char* bytes, unsigned n);
  // Input bytes not used yet. Behind a finished stream these may be up to 8 more than the last input held.
  unsigned inputLeft() const;
  // Inflates into the buffer and says how much. A step that neither used input nor produced output needs more
  // input.
  State step(char* out, unsigned room, unsigned& produced);

 private:
  struct Engine;
  std::unique_ptr<Engine> m_engine;
};

}  // namespace morvane

// One raw deflate stream (RFC 1951) being inflated. Built over zlib, or over ISA-L where that was found.
#pragma once

#include <memory>

namespace morvane {

// One stream, one thread. However hostile the data, no more is allocated than a window of 32 KiB and the
// library's tables. MorvaneDeflate is the only user.
class RawInflate {
 public:
  // GoesOn: it needs more input, or more room. Finished: the stream's last block has ended, and all of it
  // came out. Damaged: these bytes are no deflate data, and the object is of no further use. What was
  // produced counts in each of the three.
  enum class State { GoesOn, Finished, Damaged };

  RawInflate();
  ~RawInflate();
  RawInflate(const RawInflate&) = delete;
  RawInflate& operator=(const RawInflate&) = delete;

  // False when there is no memory. A stream that was begun before is given up.
  bool begin();
  // The bytes are not copied and must stay until they are used up; what was left of the input before is
  // forgotten.
  void setInput(const char* bytes, unsigned n);
  // Input bytes not used yet. Behind a finished stream these may be up to 8 more than the last input held.
  unsigned inputLeft() const;
  // Inflates into the buffer and says how much. A step that neither used input nor produced output needs
  // more input. Throws std::bad_alloc where the library wants memory and there is none.
  State step(char* out, unsigned room, unsigned& produced);

 private:
  // The library's state lies behind a pointer, so that its header is seen by one source file only.
  struct Engine;
  std::unique_ptr<Engine> m_engine;
};

}  // namespace morvane

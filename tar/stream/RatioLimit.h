// Ends a decompressor of which far more comes out than went in (the word MaxRatio): a bomb, as a rule. It
// knows nothing of archives and stands in front of whatever takes the bytes.
#pragma once

#include <functional>
#include <utility>

#include "runtime/io/Io.h"
#include "runtime/io/MeteredSource.h"
#include "runtime/io/_mvOutput.h"
#include "tar/place/RunLimits.h"

namespace morvane {

// Stands between a decompressor and its output. `in` is what the decompressor reads. 0 is no limit. Bytes
// against bytes, from the start of the run, so that a short stretch that compresses well is nothing. One for
// a run; the sums are never set back.
class RatioLimit : public _mvOutput {
 public:
  // Tells of the limit in place of failAtLimit; false.
  using Tell = std::function<bool(const char* word, long long value)>;
  // `mostTimes` is 0 or more. `tell` may be empty.
  RatioLimit(_mvOutput& out, const MeteredSource& in, long long mostTimes, Tell tell)
      : m_out(out), m_in(in), m_mostTimes(mostTimes), m_tell(std::move(tell)) {}

  // The piece that goes beyond the limit is not handed on, and its refusal ends the decompressor. False, with
  // the word and its value in the log, at the limit; else the output's own answer.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override {
    m_produced += n;
    // Divided, because a product might be more than any number holds: rounded up, since a byte too many is
    // one.
    const bool isBomb = m_mostTimes > 0 && m_produced > kAlwaysAllowed &&
                        (m_produced - 1) / m_mostTimes + 1 > m_in.bytesTaken();
    if (isBomb) {
      constexpr char kWord[] = "MaxRatio";
      return m_tell ? m_tell(kWord, m_mostTimes) : failAtLimit(kWord, m_mostTimes, Io(log, io.monitor()));
    }
    return m_out._writeBytes(bytes, n, io, log);
  }

 private:
  // Small archives of zeros have any ratio and do no harm; the limit begins to count at 16 MiB of output.
  static constexpr long long kAlwaysAllowed = 16LL * 1024 * 1024;

  // Both of the caller's, who outlives this.
  _mvOutput& m_out;
  // Counts the bytes that the decompressor took. It is the side that is taken in order, not what a thread has
  // read ahead.
  const MeteredSource& m_in;
  // Bytes out for each byte in.
  const long long m_mostTimes;
  const Tell m_tell;
  // Bytes that came out so far, the piece that is refused among them.
  long long m_produced = 0;
};

}  // namespace morvane

// The state is a position in the stored data and one in the file. Pieces come as they are cut by whoever
// reads; ranges come from the archive, in order and without overlap (SparseMap checks that), so that the file
// is written forward only.
#include "tar/place/SparseOutput.h"

#include <algorithm>

#include "runtime/io/OutputFile.h"
#include "runtime/log/LogBase.h"

namespace morvane {

// Once the whole map is known: its ranges have to add up to exactly the bytes that are left.
bool SparseOutput::checkMap(LogBase& log) {
  m_mapIsComplete = true;
  if (m_map.fits(m_left)) return true;
  return fail("The map of a sparse member does not fit its data.", log);
}

// True may also mean that the map goes on in the next piece, and then n is 0.
bool SparseOutput::takeMap(const char*& bytes, unsigned& n, LogBase& log) {
  if (m_mapIsWrong) return fail(kMapIsWrong, log);
  if (m_map.isInData()) {
    unsigned used = 0;
    const SparseMapText::State state = m_text.take(bytes, n, used, m_map);
    bytes += used;
    n -= used;
    m_left -= used;
    if (state == SparseMapText::State::GoesOn) return true;
    if (state == SparseMapText::State::Wrong) return fail("The map of a sparse member is malformed.", log);
  }
  return checkMap(log);
}

// A failure of the file's own lets the rest of the data pass without being written; otherwise a failure ends
// the run. Ranges of no length are stepped over: GNU tar ends its maps with one.
bool SparseOutput::_writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) {
  if (!m_hasFailed && !m_mapIsComplete && !takeMap(bytes, n, log)) return false;
  if (m_hasFailed) return m_file && m_file->hasFailedAlone();
  const std::vector<SparseRange>& ranges = m_map.ranges();
  while (n > 0) {
    while (m_range < ranges.size() && m_inRange == ranges[m_range].length) {
      ++m_range;
      m_inRange = 0;
    }
    // The map was compared with the header's size; only a source that gives more than that gets here.
    if (m_range == ranges.size()) return fail("A sparse member has more data than its map.", log);
    const SparseRange& range = ranges[m_range];
    if (!passHole(range.offset + m_inRange, io, log)) return false;
    const unsigned piece = static_cast<unsigned>(std::min<long long>(n, range.length - m_inRange));
    if (!m_out->_writeBytes(bytes, piece, io, log)) return false;
    bytes += piece;
    n -= piece;
    m_at += piece;
    m_inRange += piece;
    m_left -= piece;
  }
  return true;
}

// A file is only moved on; a stream gets zeros, up to the size that the map claims, which may be far more
// than was stored: whoever takes them can stop it.
bool SparseOutput::passHole(long long upTo, _mvIoParams& io, LogBase& log) {
  if (upTo == m_at) return true;
  if (m_file) {
    if (!m_file->passHole(upTo - m_at, io.monitor(), log)) return false;
    m_at = upTo;
    return true;
  }
  static constexpr char kZeros[16 * 1024] = {};
  while (m_at < upTo) {
    const auto piece = static_cast<unsigned>(std::min<long long>(upTo - m_at, sizeof kZeros));
    if (!m_out->writeBytesPM(kZeros, piece, io.monitor(), log)) return false;
    m_at += piece;
  }
  return true;
}

// A sparse member without any data never had a piece, and its map is looked at here.
bool SparseOutput::finish(_mvIoParams& io, LogBase& log) {
  if (!m_hasFailed && m_mapIsWrong) return fail(kMapIsWrong, log);
  if (!m_hasFailed && !m_mapIsComplete) {
    if (m_map.isInData() ? !fail("The map of a sparse member is cut.", log) : !checkMap(log)) return false;
  }
  if (m_hasFailed) return m_file && m_file->hasFailedAlone();
  // Less than the map promises: what is missing would be a hole where there were data.
  if (m_left > 0) return fail("A sparse member has less data than its map.", log);
  return passHole(m_map.realSize(), io, log) &&
         (!m_file || m_file->setLength(m_map.realSize(), io.monitor(), log));
}

// True where the file alone fails, so that the run goes on.
bool SparseOutput::fail(const char* message, LogBase& log) {
  log.LogError(message);
  m_hasFailed = true;
  if (m_file) m_file->failAlone();
  return m_file && m_file->hasFailedAlone();
}

}  // namespace morvane

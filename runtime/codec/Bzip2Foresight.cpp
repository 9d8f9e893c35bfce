// A stream that knows what will come. It gives the steps that libbzip2 would give: input is used up to the
// end of a block, and then its output comes. Only that the output has been made already. So the loop around
// it reads, writes and asks in the same order as with one thread.
//
// What is found to be otherwise than it seemed is left to libbzip2 itself, from the beginning of the block on
// that did not come right: whatever it makes of it, at the byte where it does, is what one thread would have
// made.
#include "runtime/codec/Bzip2Foresight.h"

#include <bzlib.h>

#include <algorithm>
#include <deque>

#include "runtime/codec/Bzip2Block.h"
#include "runtime/codec/Bzip2Marks.h"
#include "runtime/codec/Bzip2Resume.h"
#include "runtime/codec/InputWindow.h"
#include "runtime/io/AheadSource.h"

namespace morvane {

namespace {

constexpr unsigned kHeader = 4;  // "BZh" and the level
// A mark may be unfinished in so many of the bytes that were looked at.
constexpr long long kUnsureBytes = kBzip2MarkBits / 8;
// The most that a block can have: 900,000 symbols of 20 bits, and its tables. What is longer without a mark
// is no bzip2, or somebody's attempt to have it all kept.
constexpr size_t kMostRaw = 4 * 1024 * 1024;
// How far to read ahead: a block of 900 kB takes less than this, compressed.
constexpr long long kMostHeldForBlock = 1024 * 1024;

// Looks for blocks ahead of their turn, and has them expanded. Used by the first thread; workers see one
// block each, and no source. It looks at the pieces that the source has fetched, which the loop around the
// stream is given later.
class BlockFinder {
 public:
  // Two blocks for each thread, so that a worker finds the next one ready when it has done one.
  BlockFinder(AheadSource& ahead, unsigned workers)
      : m_ahead(ahead), m_slots(2 * (workers + 1)), m_ring(workers, m_slots) {}

  // A block whose end was found.
  struct Found {
    long long firstBit, endBit;
    bool isFirstOfStream, endsStream;
    int level;
  };
  // m_found and the jobs of the ring go side by side: the oldest of one belongs to the oldest of the other.
  bool isEmpty() const { return m_found.empty(); }
  const Found& oldest() const { return m_found.front(); }
  // It is the caller's until the next one is taken.
  Bzip2Block& take() {
    m_found.pop_front();
    return m_ring.take();
  }

  // As far as can be without waiting, and with something to read in any case.
  void lookAhead() {
    if (m_ahead.isDrained()) fetch();
    const long long most = kMostHeldForBlock * m_slots + static_cast<long long>(kMostRaw);
    while (!m_ring.isFull() && !m_isTooLong && (!m_pieces.empty() || m_ahead.mayFetch(most))) look();
  }
  // One mark or one piece further, also if that has to be waited for. False at the end of the data, and where
  // no block can be.
  bool look() {
    if (m_pieces.empty() && !fetch()) return false;
    if (m_isTooLong) return false;
    const AheadSource::Piece& piece = *m_pieces.front();
    Bzip2Marks::Mark mark{};
    unsigned used = 0;
    const char* const bytes = piece.bytes() + m_at;
    const bool isFound = m_marks.find(bytes, piece.size - m_at, used, mark);
    // What lies between streams is not kept: no block is made of it.
    if (m_isInBlock) m_raw.insert(m_raw.end(), bytes, bytes + used);
    m_at += used;
    if (m_at == piece.size) {
      m_pieces.pop_front();
      m_at = 0;
    }
    if (isFound) takeMark(mark);
    m_isTooLong = m_raw.size() > kMostRaw;
    return true;
  }

  // Whether a block begins at this bit whose end was not found yet; so far it is `raw`, from its first byte
  // on.
  bool isInBlockFrom(long long bit) const { return m_isInBlock && m_block.firstBit == bit; }
  const Found& unfinished() const { return m_block; }
  const std::vector<char>& raw() const { return m_raw; }
  // Bytes looked at.
  long long position() const { return m_marks.position(); }

 private:
  // What failed is not looked at: it comes up when it is read.
  bool fetch() {
    const AheadSource::PiecePtr piece = m_ahead.fetch();
    if (!piece || piece->isLast()) return false;
    m_pieces.push_back(piece);
    return true;
  }

  // A mark ends the block before it and, unless it ends the stream, begins the next. Behind the end of a
  // stream nothing is kept until another block's mark comes.
  void takeMark(const Bzip2Marks::Mark& mark) {
    if (m_isInBlock) handIn(mark);
    m_isInBlock = !mark.endsStream;
    if (!m_isInBlock) {
      m_raw.clear();
      return;
    }
    // The bytes of the mark are still at hand, and those of a header in front of it.
    m_raw.clear();
    for (auto n = static_cast<unsigned>(m_marks.position() - mark.bit / 8); n > 0; --n)
      m_raw.push_back(static_cast<char>(m_marks.byteBack(n - 1)));
    constexpr unsigned kLevelBack = kBzip2MarkBits / 8;
    const unsigned char level = m_marks.byteBack(kLevelBack);
    m_block.firstBit = mark.bit;
    m_block.isFirstOfStream = mark.bit % 8 == 0 && m_marks.byteBack(kLevelBack + 3) == 'B' &&
                              m_marks.byteBack(kLevelBack + 2) == 'Z' &&
                              m_marks.byteBack(kLevelBack + 1) == 'h' && level >= '1' && level <= '9';
    // Later blocks have the level of their stream, which is that of the last header seen.
    if (m_block.isFirstOfStream) m_block.level = level - '0';
  }

  // The ring has room: `look` is called by lookAhead only while it is not full, and elsewhere only where no
  // block is under way.
  void handIn(const Bzip2Marks::Mark& mark) {
    m_block.endBit = mark.bit;
    m_block.endsStream = mark.endsStream;
    Bzip2Block& job = m_ring.next();
    job.firstBit = m_block.firstBit;
    job.endBit = mark.bit;
    job.level = m_block.level;
    // Exchanged and not copied; m_raw gets the memory of a block that has been taken.
    job.raw.swap(m_raw);
    // About what comes out of it.
    constexpr size_t kExpands = 4;
    m_ring.submit(job.raw.size() * kExpands);
    m_found.push_back(m_block);
  }

  AheadSource& m_ahead;
  const unsigned m_slots;
  std::deque<AheadSource::PiecePtr> m_pieces;  // not looked at yet, but for the first bytes of the first
  unsigned m_at = 0;
  Bzip2Marks m_marks;
  bool m_isInBlock = false, m_isTooLong = false;
  Found m_block{0, 0, false, false, 9};
  std::vector<char> m_raw;
  std::deque<Found> m_found;
  // Last: it waits for what is being done.
  RingOf<Bzip2Block> m_ring;
};

// The stream that expandBzip2Streams is given. All of it is the first thread's. Until it gives up it goes
// by the finder's blocks; from then on it is libbzip2, for the rest of the data.
class ForeseenStream : public Bzip2Stream {
 public:
  ForeseenStream(AheadSource& ahead, unsigned workers) : m_finder(ahead, workers) {}

  // A stream begins at a byte, so its first mark has to stand right behind the four bytes of its header.
  bool begin() override {
    if (m_isGivenUp) return m_lib.begin();
    m_phase = Phase::Block;
    m_streamAt = m_position;
    m_bit = (m_position + kHeader) * 8;
    m_isFirst = true;
    m_combined = 0;
    return true;
  }

  // One of the library's steps is often several of these: the end of a block, its output, the beginning of
  // the next. Once it has given up in the middle, the rest of the step is the library's.
  int step(Bzip2Step& step) override {
    int state = BZ_RUN_OK;
    while (state == BZ_RUN_OK && !m_isGivenUp) {
      state = m_phase == Phase::Block    ? findBlock(step)
              : m_phase == Phase::Output ? putOut(step)
                                         : checkEnd(step);
    }
    return state == BZ_RUN_OK ? libStep(step) : state;
  }

  // Nothing was begun in the library as long as blocks were foreseen; then this does nothing.
  void end() override { m_lib.end(); }

  void beforeRead() override {
    if (!m_isGivenUp) m_finder.lookAhead();
  }

 private:
  // Steps of a step: BZ_RUN_OK goes on, whatever else is the step's own result.

  enum class Phase { Block, Output, End };

  // Uses input up to a byte of the data; false when there is not enough of it. The last eight bytes are
  // remembered, because the checksum at a stream's end has to be read from them, whatever pieces it came
  // in.
  bool use(Bzip2Step& step, long long upTo) {
    const auto n = static_cast<unsigned>(std::min<long long>(step.left, upTo - m_position));
    for (unsigned i = n - std::min(n, 8u); i < n; ++i)
      m_tail = m_tail << 8 | static_cast<unsigned char>(step.bytes[i]);
    step.bytes += n;
    step.left -= n;
    m_position += n;
    return m_position == upTo;
  }

  // A block whose end is not known yet is used up as far as it reaches for sure, as the library would
  // gather it; so reads come at the same places. Only where the input might pass its end the next mark is
  // looked for, which may mean to wait.
  int findBlock(Bzip2Step& step) {
    // Only between streams, where something else may lie.
    while (!m_finder.isEmpty() && m_finder.oldest().firstBit < m_bit) m_finder.take();
    if (!m_finder.isEmpty()) return useFound(step);
    if (m_finder.isInBlockFrom(m_bit) && (m_finder.unfinished().isFirstOfStream || !m_isFirst)) {
      // The block goes on to there at least.
      const long long sure = m_finder.position() - kUnsureBytes;
      if (m_position + step.left <= sure) {
        use(step, sure);
        return BZ_OK;
      }
      return m_finder.look() ? BZ_RUN_OK : giveUp(m_finder.unfinished(), m_finder.raw());
    }
    // Not enough was looked at to say that no mark stands there.
    const bool mayCome = m_finder.position() * 8 < m_bit + kBzip2MarkBits;
    return mayCome && m_finder.look() ? BZ_RUN_OK : giveUpStream();
  }

  // Input goes up to the byte in which the block ends, a part of which may belong to what follows. A block
  // of another level than its stream's was taken for the beginning of one by mistake.
  int useFound(Bzip2Step& step) {
    const BlockFinder::Found found = m_finder.oldest();
    if (found.firstBit != m_bit || (m_isFirst && !found.isFirstOfStream)) return giveUpStream();
    if (!use(step, (found.endBit + 7) / 8)) return BZ_OK;
    m_block = &m_finder.take();
    if (m_isFirst) m_level = found.level;
    if (!m_block->isRight() || found.level != m_level) return giveUp(found, m_block->raw);
    m_found = found;
    m_phase = Phase::Output;
    return BZ_RUN_OK;
  }

  // Output that is full ends the step, and the next one goes on with the block. The sum of a stream is that
  // of its blocks, turned by a bit with each.
  int putOut(Bzip2Step& step) {
    unsigned n = 0;
    if (!m_block->takeOutput(step.out + step.produced, step.room - step.produced, n)) return BZ_MEM_ERROR;
    step.produced += n;
    if (m_block->hasOutput()) return BZ_OK;
    m_combined = (m_combined << 1 | m_combined >> 31) ^ m_block->crc();
    m_bit = m_found.endBit;
    m_isFirst = false;
    m_phase = m_found.endsStream ? Phase::End : Phase::Block;
    return BZ_RUN_OK;
  }

  // The mark was found; behind it stands the sum of the blocks' sums. The sum begins at any bit, so up to 7
  // bits behind it fill the last byte; they are shifted out.
  int checkEnd(Bzip2Step& step) {
    const long long endBit = m_bit + kBzip2MarkBits + 32, end = (endBit + 7) / 8;
    if (!use(step, end)) return BZ_OK;
    const auto stored = static_cast<unsigned>(m_tail >> (end * 8 - endBit) & 0xFFFFFFFF);
    return stored == m_combined ? BZ_STREAM_END : BZ_DATA_ERROR;
  }

  // Here begins no stream that anything is known of, and none of it was used. So the library sees it from
  // its first byte on: it may be empty, damaged, or no bzip2 at all.
  int giveUpStream() {
    m_isGivenUp = true;
    return m_lib.begin() ? BZ_RUN_OK : BZ_MEM_ERROR;
  }

  // The library goes on from the block's beginning, with what was used of it. `raw` begins at the byte with
  // its first bit. In a stream's first block that is from the stream's header on. In a later one the
  // library is given a beginning that leaves it with the same checksum at the same bit.
  int giveUp(const BlockFinder::Found& block, const std::vector<char>& raw) {
    m_isGivenUp = true;
    if (!m_lib.begin()) return BZ_MEM_ERROR;
    const auto phase = static_cast<unsigned>(block.firstBit % 8);
    const long long used = m_position - block.firstBit / 8;
    if (m_isFirst) {
      m_again = "BZh" + std::to_string(block.level);
      m_again.resize(static_cast<size_t>(std::min<long long>(kHeader, m_position - m_streamAt)));
    } else {
      Bzip2Beginning beginning;
      if (!makeBzip2Beginning(m_level, phase, m_combined, beginning)) return BZ_MEM_ERROR;
      m_again = beginning.bytes;
      m_unwanted = beginning.output;
    }
    // The byte in which the block before ends has been used.
    if (phase > 0) m_again.back() = static_cast<char>(m_again.back() | (raw[0] & 0xFF >> phase));
    const size_t from = phase > 0 ? 1 : 0;
    if (used > 0) m_again.append(raw.data() + from, static_cast<size_t>(used) - from);
    return BZ_RUN_OK;
  }

  // First what was used before, and without the output of what stands in front of it. Each round makes one
  // call, with input from what is given again or from the step, and output into nowhere or into the step;
  // it ends where the step itself has ended.
  int libStep(Bzip2Step& step) {
    char unwanted[256];
    while (m_unwanted > 0 || m_againAt < m_again.size()) {
      Bzip2Step inner = step;
      const bool isAgain = m_againAt < m_again.size();
      if (isAgain) {
        inner.bytes = m_again.data() + m_againAt;
        inner.left = static_cast<unsigned>(m_again.size() - m_againAt);
      }
      if (m_unwanted > 0) {
        inner.out = unwanted;
        inner.room = m_unwanted;
        inner.produced = 0;
      }
      const int state = m_lib.step(inner);
      if (isAgain) {
        m_againAt = m_again.size() - inner.left;
      } else {
        step.bytes = inner.bytes;
        step.left = inner.left;
      }
      const bool wasUnwanted = m_unwanted > 0;
      if (wasUnwanted) {
        m_unwanted -= inner.produced;
      } else {
        step.produced = inner.produced;
      }
      if (state != BZ_OK || (!isAgain && step.left == 0) || (!wasUnwanted && step.produced == step.room))
        return state;
    }
    return m_lib.step(step);
  }

  BlockFinder m_finder;
  // Bytes of the data that were used, the last eight of them, and where the stream began.
  long long m_position = 0, m_streamAt = 0;
  uint64_t m_tail = 0;
  Phase m_phase = Phase::Block;
  // Where the next mark has to stand.
  long long m_bit = 0;
  bool m_isFirst = true;  // it is the stream's first
  int m_level = 9;
  unsigned m_combined = 0;  // the sum of the stream's blocks so far
  BlockFinder::Found m_found{};
  Bzip2Block* m_block = nullptr;  // whose output is coming; the finder's

  bool m_isGivenUp = false;
  LibBzip2Stream m_lib;
  // What it is given before the input, and how much of its output nobody wants.
  std::string m_again;
  size_t m_againAt = 0;
  unsigned m_unwanted = 0;
};

}  // namespace

bool expandBzip2Ahead(AheadSource& ahead, _mvDataSource& heard, _mvOutput& out, const CodecOptions& options,
                      const Io& io) {
  ForeseenStream stream(ahead, workerCount(options.threads));
  return expandBzip2Streams(stream, heard, out, io);
}

}  // namespace morvane

// Data are the bulk of an archive, so that they are copied as few times as possible: read straight into the
// archive's own buffer where both are files, lent by the source where it can, and through a buffer of one
// piece elsewhere.
#include "tar/write/MemberData.h"

#include <algorithm>

#include "runtime/base/ByteArrayOwner.h"
#include "runtime/io/OutputFile.h"

namespace morvane {

namespace {

// Progress, abort and encoder see the data in such pieces whatever the way they came.
constexpr unsigned kPieceSize = 20000;
// Sources of applications may wait by giving nothing; one that never ends would hang the write.
constexpr unsigned kMostEmptyReads = 1000;  // in a row

}  // namespace

// The room is used in whole pieces only, so that every way yields the same pieces. A source that reached its
// end in one read is done; anything else goes on in the ordinary way.
MemberData::Copied MemberData::copyFile(SourceFile& file, long long most) {
  Copied copied;
  OutputFile* const output = m_run.archive.plainFile();
  while (output && copied.bytes < most && !file.data().endOfStream()) {
    unsigned room = 0, got = 0;
    char* const bytes = output->spareRoom(kPieceSize, room, m_run.io.monitor, m_run.io.log);
    // No room, or an output that keeps none: the ordinary way does it.
    if (!bytes) break;
    const long long wanted = std::min<long long>(most - copied.bytes, room - room % kPieceSize);
    // No monitor here: the piece that is put next asks and counts.
    copied.readFailed = !file.data().readOnce(bytes, static_cast<unsigned>(wanted), got, m_run.io.log);
    if (copied.readFailed || got == 0) {
      copied.ok = true;
      return copied;
    }
    copied.bytes += got;
    for (unsigned done = 0; done < got; done += kPieceSize) {
      if (!putPiece(bytes + done, std::min(got - done, kPieceSize))) return copied;
    }
  }
  copied.ok = copied.bytes >= most || file.data().endOfStream();
  // A file that there is no memory to read is not one whose read failed.
  if (!copied.ok && file.data().makeWindow(m_run.io.log)) copyPieces(file.data(), most, copied);
  return copied;
}

MemberData::Copied MemberData::copySource(_mvDataSource& source, long long most) {
  Copied copied;
  copyPieces(source, most, copied);
  return copied;
}

// A failed read ends the copy with what came before it, which is in the archive. Without memory for a piece
// nothing is copied, and that is a failure.
void MemberData::copyPieces(_mvDataSource& source, long long most, Copied& copied) {
  LogBase& log = m_run.io.log;
  copied.ok = false;
  // A source that lends spares the copy into a buffer.
  const bool lends = source.canLend();
  const ByteArrayOwner buffer(lends ? nullptr : mvNewChar(kPieceSize));
  if (!lends && !buffer.get()) return;
  unsigned emptyReads = 0;
  while (copied.bytes < most && !source.endOfStream()) {
    const unsigned wanted = static_cast<unsigned>(std::min<long long>(most - copied.bytes, kPieceSize));
    const char* bytes = buffer.get();
    unsigned got = 0;
    const bool ok = lends ? source.lend(wanted, bytes, got, nullptr, log)
                          : source.read(buffer.get(), wanted, got, nullptr, log);
    copied.readFailed = !ok;
    if (!ok) break;
    // A read of nothing is no end, but a source that gives nothing else has none to wait for.
    emptyReads = got == 0 ? emptyReads + 1 : 0;
    if (emptyReads == kMostEmptyReads) {
      m_run.io.fail("The source gives no more data and does not end.");
      return;
    }
    if (got == 0) continue;
    copied.bytes += got;
    if (!putPiece(bytes, got)) return;
  }
  copied.ok = true;
}

// In pieces as well, for the sake of progress and abort. Counted down, because a sum of pieces could pass the
// largest number.
bool MemberData::put(const char* bytes, unsigned n) {
  for (unsigned piece = 0; n > 0; bytes += piece, n -= piece) {
    piece = std::min(n, kPieceSize);
    if (!putPiece(bytes, piece)) return false;
  }
  return true;
}

// Progress is counted before the write: its callback may abort, which the write then finds.
bool MemberData::putPiece(const char* bytes, unsigned n) {
  if (m_run.io.monitor) m_run.io.monitor->consumeProgress(n, m_run.io.log);
  if (m_run.put(reinterpret_cast<const unsigned char*>(bytes), n)) return true;
  return m_run.io.fail("Failed to write file data to TAR output.");
}

}  // namespace morvane

// The writer's handling of a member's data: how many bytes go behind a header, and what is said when the
// source has more or fewer. The copying itself is MemberData's.
#include <algorithm>

#include "runtime/log/LogNull.h"
#include "tar/format/TarBlock.h"
#include "tar/write/ArchiveWriter.h"
#include "tar/write/SourceEntry.h"

namespace morvane {

namespace {

constexpr char kCannotOpenSource[] = "Failed to open source file for TAR archive.";
constexpr char kCannotCopy[] = "Failed to copy file contents to TAR.";

}  // namespace

// Where sizes are not exact the data run to the file's end, whatever the header says, as the component has
// always written them; WriteExactSizes is the way out.
bool ArchiveWriter::writeData(const SourcePlace& place, const mvFileInfo& info) {
  // What lies in memory has exactly the size that its header says.
  if (place.memory) {
    const DataBuffer& bytes = place.memory->m_bytes;
    return writeMemory(reinterpret_cast<const char*>(bytes.getData2()), bytes.getSize());
  }
  if (m_source.wholeBytes()) return writeMemory(m_source.wholeBytes(), static_cast<unsigned>(info.m_size));
  if (m_member.sparse.isSparse()) return writeSparse(place, info);
  return m_run.settings.options.writeExactSizes ? writeExactSize(place, info) : writeToTheEnd(place, info);
}

// The header states the same size, so that the padding can go by what was written.
bool ArchiveWriter::writeMemory(const char* bytes, unsigned n) {
  if (!m_data.put(bytes, n)) return m_run.io.fail(kCannotCopy);
  return m_run.putZeros(paddingAfter(n));
}

// The map where it is data, then the ranges, each with as many bytes as the map says: zeros where the file
// has become shorter.
bool ArchiveWriter::writeSparse(const SourcePlace& place, const mvFileInfo& info) {
  const SparseMap& map = m_member.sparse;
  // GNU's map went out with the header block.
  if (m_member.typeFlag != kTypeSparse && !m_run.put(sparseMapText(map))) return false;
  // The header is out, and its size has to be filled in any case.
  const bool isOpen = openForData(place, info);
  if (!isOpen && !m_run.settings.options.skipUnreadable) return false;
  bool isWhole = isOpen, readFailed = false;
  for (const SparseRange& range : map.ranges()) {
    MemberData::Copied copied;
    // A place that cannot be sought is one that cannot be read.
    if (isOpen && !readFailed) readFailed = !m_source.data().fseekAbsolute64(range.offset, m_log);
    if (isOpen && !readFailed) {
      copied = m_data.copyFile(m_source, range.length);
      if (!copied.ok) return m_run.io.fail(kCannotCopy);
    }
    // The ranges behind a failed read are filled with zeros and not tried.
    readFailed |= copied.readFailed;
    isWhole &= copied.bytes == range.length;
    if (!m_run.putZeros(range.length - copied.bytes)) return false;
  }
  if (!m_run.putZeros(paddingAfter(m_member.size))) return false;
  if (readFailed) {
    reportReadFailed(place);
    return true;
  }
  // Ranges say nothing of what has come behind the last one. A size that cannot be told is no change.
  const long long now = isOpen ? m_source.sizeNow() : -1;
  if (!isWhole || (now >= 0 && now != info.m_size)) reportSizeChanged(place, info.m_size, now);
  return true;
}

// It may be open already: from the examination, or from looking whether it can be read.
bool ArchiveWriter::openForData(const SourcePlace& place, const mvFileInfo& info) {
  if (m_source.open(place, info, m_log)) return true;
  m_log.LogError(kCannotOpenSource);
  m_log.LogDataX("fullPath", place.fullPath);
  return false;
}

// An empty file is not opened at all. Files of /proc state no size and have data: they are archived as empty.
// A file that grows or shrinks meanwhile puts everything behind it out of its place: the sum of data and
// padding is then no whole number of blocks, or the header's size is not theirs.
bool ArchiveWriter::writeToTheEnd(const SourcePlace& place, const mvFileInfo& info) {
  if (info.m_size == 0) return true;
  if (!openForData(place, info)) return false;
  if (!m_data.copyFile(m_source, MemberData::kToTheEnd).ok) return m_run.io.fail(kCannotCopy);
  // By the size in the header, whatever was copied.
  const unsigned padding = paddingAfter(info.m_size);
  return padding == 0 || m_run.putZeros(padding);
}

// As many bytes as the header says, zeros where the file has fewer. What the file has beyond its size is not
// copied and is told as a change, so that the user knows of it.
bool ArchiveWriter::writeExactSize(const SourcePlace& place, const mvFileInfo& info) {
  const long long size = info.m_size;
  if (size == 0) {
    if (hasGrownFromNothing(place, info)) reportSizeChanged(place, 0, std::max(m_source.sizeNow(), 1LL));
    return true;
  }
  MemberData::Copied copied;
  if (openForData(place, info)) {
    copied = m_data.copyFile(m_source, size);
    if (!copied.ok) return m_run.io.fail(kCannotCopy);
    // With the word the member is all zeros and is told as one that changed.
  } else if (!m_run.settings.options.skipUnreadable) {
    return false;
  }
  if (copied.readFailed) reportReadFailed(place);
  if (!m_run.putZeros(size - copied.bytes + paddingAfter(size))) return false;
  if (copied.readFailed) return true;
  if (copied.bytes < size) {
    reportSizeChanged(place, size, copied.bytes);
  } else if (m_source.hasMoreThan(size)) {
    reportSizeChanged(place, size, std::max(m_source.sizeNow(), size + 1));
  }
  return true;
}

// Size 0 is also what files state that the system makes up as they are read.
bool ArchiveWriter::hasGrownFromNothing(const SourcePlace& place, const mvFileInfo& info) {
  LogNull unwanted;  // one that cannot be opened has nothing that was to be archived
  return info.m_isRegularFile && m_source.open(place, info, unwanted) && m_source.hasMoreThan(0);
}

// The archive can be read to its end, hence a notice; the job fails by anythingLost().
void ArchiveWriter::reportSizeChanged(const SourcePlace& place, long long inHeader, long long now) {
  m_anythingLost = true;
  m_dataAreWhole = false;
  m_log.LogNotice("The file's size changed while it was archived.");
  m_log.LogDataX("fullPath", place.fullPath);
  m_log.LogDataInt64("sizeInHeader", inHeader);
  m_log.LogDataInt64("sizeRead", now);
  m_run.io.inform("sizeChanged", place.fullPath.getUtf8());
}

// Until the event has been told, get_FailureCause says why.
void ArchiveWriter::reportReadFailed(const SourcePlace& place) {
  m_anythingLost = true;
  m_dataAreWhole = false;
  m_log.LogNotice("The file could not be read to its end.");
  m_log.LogDataX("fullPath", place.fullPath);
  m_run.io.inform("readFailed", place.fullPath.getUtf8());
  m_log.forgetCause();
}

// A step by itself: whoever calls it has written the header and pads the data.
bool ArchiveWriter::copySourceToOutput(_mvDataSource& source) {
  return m_data.copySource(source, MemberData::kToTheEnd).ok;
}

}  // namespace morvane

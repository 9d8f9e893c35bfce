// A scan without events and limits, for one member that is wanted in memory. It reads header after header as
// they are, without looking into records: a long name is a candidate under the 100 bytes of it that its own
// header has.
#include "tar/read/FirstMatch.h"

#include <algorithm>

#include "runtime/io/OutputDataBuffer.h"
#include "runtime/text/WildcardPattern.h"
#include "tar/format/EntryPath.h"
#include "tar/format/NameDecoder.h"
#include "tar/format/TarHeader.h"
#include "tar/read/ArchiveCursor.h"

namespace morvane {

namespace {

// Room for the match in one allocation, by no claim larger than what the source can hold. A source that does
// not know its size has -1, and nothing is reserved; then the buffer grows as data arrive.
void reserveFor(long long size, _mvDataSource& source, _mvOutput& out) {
  auto* const buffer = dynamic_cast<OutputDataBuffer*>(&out);
  const long long left = source.sizeIfKnown() - std::max(source.ftell64(), 0LL);
  const long long wanted = std::min(size, left);
  if (buffer && wanted > 0 && wanted <= 0xFFFFFFFFLL) buffer->reserveMore(static_cast<unsigned>(wanted));
}

}  // namespace

// A header that cannot be read ends the scan as a failure with the same line as an end without a match.
bool copyFirstMatch(_mvDataSource& source, const MatchWanted& wanted, const ReadSettings& settings,
                    _mvOutput& out, const Io& io) {
  LogBase& log = io.log;
  log.LogDataX("matchPattern", wanted.pattern);
  ArchiveCursor cursor(source, io.monitor);
  // One header and one text serve all members, so that a long archive costs no memory for each.
  TarHeader header;
  NameDecoder names;
  CharsetDecoder& decoder = names.forCharset(settings.charset, log);
  const WildcardPattern pattern(wanted.pattern.str(), wanted.caseSensitive);
  XString path;
  while (true) {
    bool endOfArchive = false;
    if (!header.parseFromDataSource(source, nullptr, endOfArchive, log) || endOfArchive) {
      log.LogError("No match found to extract.");
      // Reaching the end without a match is no failure; callers look at the destination.
      return endOfArchive;
    }
    cursor.passed(kBlockSize);
    // By the rules that every path goes by, so that the pattern sees what a listing shows.
    path.buffer().clear();
    decoder.append(leftOfEntryPath(header.m_path.str(), false, settings.noAbsolutePaths), '\\', '/',
                   path.buffer());
    if (settings.untarDebugLog) log.LogDataX("entry", path);
    if (wanted.logsEntries) log.LogDataX("entryFilepath", path);
    if (pattern.matches(path.str())) {
      log.LogDataX("extractingFilename", path);
      reserveFor(header.m_size, source, out);
      // The size is the header's own, also where a record in front of it states another one: records are not
      // read here.
      return source.copyNToOutputPM(out, header.m_size, io.monitor, log);
    }
    // A record's data are passed over like a member's: it was a candidate under its own name.
    if (!cursor.moveTo(saturatedSum(cursor.position(), paddedSize(header.m_size)), log)) return false;
  }
}

}  // namespace morvane

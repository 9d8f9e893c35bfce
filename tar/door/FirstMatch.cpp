// ClsTar's extraction of the first matching member into memory: a scan of its own, simpler than the untar
// engine. Nothing is merged, so records are candidates under their own names.
#include "runtime/text/WildcardPattern.h"
#include "tar/door/ClsTarMethod.h"
#include "tar/format/EntryPath.h"
#include "tar/format/NameDecoder.h"
#include "tar/format/TarBlock.h"
#include "tar/read/ArchiveCursor.h"

namespace morvane {

namespace {

// Room for the match in one allocation, by no claim larger than what the source can hold.
void reserveFor(long long size, _mvDataSource& source, _mvOutput& out) {
  auto* const buffer = dynamic_cast<OutputDataBuffer*>(&out);
  const long long left = source.sizeIfKnown() - std::max(source.ftell64(), 0LL);
  const long long wanted = std::min(size, left);
  if (buffer && wanted > 0 && wanted <= 0xFFFFFFFFLL) buffer->reserveMore(static_cast<unsigned>(wanted));
}

}  // namespace

bool ClsTar::_untarFirstMatchingToOutput(_mvDataSource& source, const XString& pattern, _mvOutput& out,
                                         LogBase& log, bool logEntries, ProgressMonitor* pm) {
  const StepGuard step(*this);
  return step && takeOptions(log) && firstMatchTo(source, pattern, out, log, logEntries, pm);
}

bool ClsTar::firstMatchTo(_mvDataSource& source, const XString& pattern, _mvOutput& out, LogBase& log,
                          bool logEntries, ProgressMonitor* pm) {
  log.LogDataX("matchPattern", pattern);
  ArchiveCursor cursor(source, pm, log);
  TarHeader header;
  NameDecoder names;
  CharsetDecoder& decoder = names.forCharset(m_charset.str(), log);
  const WildcardPattern wanted(pattern.str(), m_matchCaseSensitive);
  XString path;
  while (true) {
    bool endOfArchive = false;
    if (!header.parseFromDataSource(source, nullptr, endOfArchive, log) || endOfArchive) {
      log.LogError("No match found to extract.");
      // Reaching the end without a match is no failure; callers look at the destination.
      return endOfArchive;
    }
    cursor.passed(kBlockSize);
    path.buffer().clear();
    decoder.append(leftOfEntryPath(header.m_path.str(), false, m_noAbsolutePaths), '\\', '/', path.buffer());
    if (m_untarDebugLog) log.LogDataX("entry", path);
    if (logEntries) log.LogDataX("entryFilepath", path);
    if (wanted.matches(path.str())) {
      log.LogDataX("extractingFilename", path);
      reserveFor(header.m_size, source, out);
      return source.copyNToOutputPM(out, header.m_size, pm, log);
    }
    if (!cursor.moveTo(saturatedSum(cursor.position(), paddedSize(header.m_size)))) return false;
  }
}

bool ClsTar::UntarFirstMatchingToMemory(DataBuffer& tarBytes, const XString& pattern,
                                        DataBuffer& destination) {
  return method("UntarFirstMatchingToMemory", MethodForm::Judged, false, [&](MethodFrame&) {
    _mvMemoryDataSource source;
    source.initializeMemSource(tarBytes.getData2(), tarBytes.getSize());
    // Appending to the archive's own buffer would move it while it is read.
    DataBuffer found;
    const bool sameBuffer = &tarBytes == &destination;
    OutputDataBuffer out(sameBuffer ? found : destination);
    const bool ok = firstMatchTo(source, pattern, out, m_log, m_log.verbose(), nullptr);
    return (!sameBuffer || destination.append(found)) && ok;
  });
}

bool ClsTar::UntarFirstMatchingToBd(const XString& tarPath, const XString& pattern, ClsBinData& destination) {
  return method("UntarFirstMatchingToBd", MethodForm::Judged, false, [&](MethodFrame& frame) {
    _mvFileDataSource file;
    if (!file.openDataSourceFile(tarPath, m_log)) {
      m_log.LogError("Failed.");
      frame.withoutVerdict();
      return false;
    }
    OutputDataBuffer out(destination.data());
    return firstMatchTo(file, pattern, out, m_log, m_log.verbose(), nullptr);
  });
}

bool ClsTar::UntarFirstMatchingToBd(_mvDataSource& source, const XString& pattern, ClsBinData& destination) {
  return method("UntarFirstMatchingToBd", MethodForm::Judged, false, [&](MethodFrame&) {
    OutputDataBuffer out(destination.data());
    return firstMatchTo(source, pattern, out, m_log, m_log.verbose(), nullptr);
  });
}

}  // namespace morvane

#include "tar/place/ExtractToFile.h"

#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/fs/_mvFilePath.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/XString.h"

namespace morvane {

namespace {

void logTime(LogBase& log, const char* tag, const MorvaneFileTime* time) {
  if (!time || !log.verbose()) return;
  StringBuffer text;
  _mvDateParser::FileTimeToStringGmt(*time, text);
  log.LogDataSb(tag, text);
}

bool setTimes(OutputFile& file, const MemberTimes& times, LogBase& log) {
  logTime(log, "lastModDateTimeGmt", times.modification);
  logTime(log, "lastAccessDateTimeGmt", times.access);
  logTime(log, "createDateTimeGmt", times.creation);
  const MorvaneFileTime& access = times.access ? *times.access : *times.modification;
  const MorvaneFileTime& creation = times.creation ? *times.creation : *times.modification;
  return file.setFileTimeUtc_3(creation, access, *times.modification, log);
}

}  // namespace

Extraction extractToFile(_mvDataSource& source, const XString& path, std::unique_ptr<OutputFile> file,
                         const MemberTimes& times, long long size, char* buffer, unsigned bufferSize,
                         LogBase& log, ProgressMonitor* pm) {
  LogContextExitor context(log, "extractToFile");
  Extraction result;
  if (size < 0) {
    log.LogError("The number of bytes is negative.");
    return result;
  }
  if (!file) {
    XString longPath;
    _mvFilePath::buildLongPath(path, longPath);
    file.reset(OutputFile::createFileUtf8(longPath.getUtf8(), log));
    if (!file) {
      log.LogError("Failed to create OutputFile");
      return result;
    }
  }
  file->expect(size);
  const bool copied = source.copyNToOutput2PM(*file, size, buffer, bufferSize, pm, log);
  const bool flushed = copied && file->flush(pm, log);
  if (flushed && log.verbose()) log.LogDataInt64("numBytesWritten", size);
  // Through the open file, between the last byte and the close: nobody can put another file in its place.
  if (times.modification) result.timesAreSet = setTimes(*file, times, log);
  result.isWhole = file->closeHandle(&log) && flushed;
  result.hasFailedAlone = copied && file->hasFailedAlone();
  return result;
}

}  // namespace morvane

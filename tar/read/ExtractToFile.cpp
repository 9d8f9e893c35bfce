#include "tar/read/ExtractToFile.h"

#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/fs/_mvFilePath.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputFile.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/XString.h"

namespace morvane {

namespace {

void logTime(LogBase& log, const char* tag, const MorvaneFileTime* time) {
  if (!time) return;
  StringBuffer text;
  _mvDateParser::FileTimeToStringGmt(*time, text);
  log.LogDataSb(tag, text);
}

void logTimes(LogBase& log, const MemberTimes& times) {
  if (!log.verbose() || !times.modification) return;
  logTime(log, "lastModDateTimeGmt", times.modification);
  logTime(log, "lastAccessDateTimeGmt", times.access);
  logTime(log, "createDateTimeGmt", times.creation);
}

}  // namespace

FileEnd extractToFile(_mvDataSource& source, const XString& path, std::unique_ptr<OutputFile> file,
                      const MemberTimes& times, long long size, char* buffer, unsigned bufferSize,
                      const Io& io) {
  LogContextExitor context(io.log, "extractToFile");
  if (size < 0) {
    io.fail("The number of bytes is negative.");
    return {};
  }
  if (!file) {
    XString longPath;
    _mvFilePath::buildLongPath(path, longPath);
    file.reset(OutputFile::createFileUtf8(longPath.getUtf8(), io.log));
    if (!file) {
      io.fail(kCannotCreateOutputFile);
      return {};
    }
  }
  file->expect(size);
  const bool copied = source.copyNToOutput2PM(*file, size, buffer, bufferSize, io.monitor, io.log);
  if (copied && io.log.verbose()) io.log.LogDataInt64("numBytesWritten", size);
  logTimes(io.log, times);
  return settleFile(*file, copied, times, io);
}

}  // namespace morvane

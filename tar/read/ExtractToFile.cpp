// The pull engine's copy of one member's data, and the same as a step of its own that applications call. The
// lines and their context are what readers of these logs know.
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

constexpr char kContext[] = "extractToFile";

// Times that the archive does not have make no line.
void logTime(LogBase& log, const char* tag, const MorvaneFileTime* time) {
  if (!time) return;
  StringBuffer text;
  _mvDateParser::FileTimeToStringGmt(*time, text);
  log.LogDataSb(tag, text);
}

// A step that was given no modification time sets none, and so tells none.
void logTimes(LogBase& log, const MemberTimes& times) {
  if (!log.verbose() || !times.modification) return;
  logTime(log, "lastModDateTimeGmt", times.modification);
  logTime(log, "lastAccessDateTimeGmt", times.access);
  logTime(log, "createDateTimeGmt", times.creation);
}

// In the log context that both forms share. The file is told its size first, because one that comes in one
// piece needs no buffer. What was copied before a failure stays, and the file is settled all the same, to get
// its metadata and its close.
FileEnd fill(_mvDataSource& source, FileToFill to, const MemberTimes& times, long long size, char* buffer,
             unsigned bufferSize, const Io& io, const Settle& settle) {
  // The size is the header's claim; nothing is allocated for it.
  to.file->expect(size);
  const bool copied = source.copyNToOutput2PM(*to.out, size, buffer, bufferSize, io.monitor, io.log);
  if (copied && io.log.verbose()) io.log.LogDataInt64("numBytesWritten", size);
  logTimes(io.log, times);
  return settle(to, copied);
}

}  // namespace

// Into a file that is made already.
FileEnd extractToFile(_mvDataSource& source, FileToFill to, const MemberTimes& times, long long size,
                      char* buffer, unsigned bufferSize, const Io& io, const Settle& settle) {
  LogContextExitor context(io.log, kContext);
  return fill(source, std::move(to), times, size, buffer, bufferSize, io, settle);
}

// A size below 0 can only come from a caller: headers with one are refused before. Nothing is confined here:
// the application has chosen the path.
FileEnd extractToNewFile(_mvDataSource& source, const XString& path, const MemberTimes& times, long long size,
                         char* buffer, unsigned bufferSize, const Io& io) {
  LogContextExitor context(io.log, kContext);
  if (size < 0) {
    io.fail("The number of bytes is negative.");
    return {};
  }
  XString longPath;
  // The form in which a system that limits plain paths takes long ones.
  _mvFilePath::buildLongPath(path, longPath);
  FileToFill to;
  to.out.reset(to.file = OutputFile::createFileUtf8(longPath.getUtf8(), io.log));
  if (!to.file) {
    io.fail(kCannotCreateOutputFile);
    return {};
  }
  return fill(source, std::move(to), times, size, buffer, bufferSize, io,
              [&](FileToFill& filled, bool isWhole) {
                return settleFile(*filled.file, isWhole, io,
                                  [&](OutputFile& open) { return setFileTimes(open, times, io.log); });
              });
}

}  // namespace morvane

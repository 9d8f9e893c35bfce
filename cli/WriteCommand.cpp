// mvtar -c, -r and -u: sources into an archive.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <new>

#include "cli/ArchiveForm.h"
#include "cli/ArchiveOutput.h"
#include "cli/Commands.h"
#include "cli/CreateEvent.h"
#include "cli/FilterProcess.h"
#include "cli/Interrupt.h"
#include "cli/NewestCopies.h"
#include "cli/ReadArchive.h"
#include "cli/Sources.h"
#include "runtime/fs/OsFile.h"
#include "runtime/io/OutputFile.h"

namespace mvtar {

namespace {

using morvane::ClsTar;
using morvane::Compression;
using morvane::OutputFile;
using morvane::XString;

// Writes to a path or an output, by the method for the compression.
template <class Place>
bool writeAs(Compression compression, ClsTar& tar, Place& place, morvane::ProgressEvent& event) {
  switch (compression) {
    case Compression::Gzip:
      return tar.WriteTarGz(place, &event);
    case Compression::Bzip2:
      return tar.WriteTarBz2(place, &event);
    case Compression::Zstd:
      return tar.WriteTarZst(place, &event);
    case Compression::Xz:
      return tar.WriteTarXz(place, &event);
    case Compression::None:
    case Compression::Compress:  // is never asked for
      break;
  }
  return tar.WriteTar(place, &event);
}

// What came of a write.
struct Written {
  bool ok = false;        // everything
  bool isClosed = false;  // the archive is whole and closed, whatever was left out of it
};

// Behind the component's call, with the result of what the command had to close itself.
Written behind(const ClsTar& tar, bool written, bool closed = true) {
  return {written && closed, closed && (written || tar.get_OnlyLeftOut())};
}

// Through a program, which writes into the archive's file or standard output. The archive is whole only if
// both are: the program's status counts like a failed write.
Written writeThroughProgram(ClsTar& tar, const CommandLine& line, CreateEvent& event, Report& report) {
  // An archive that is there is not given up for a program that is not.
  if (!FilterProcess::canStart(line.filterProgram, report)) return {};
  std::unique_ptr<OutputFile> file = archiveFile(line, report);
  if (!file) return {};
  // The component writes into the pipe and cannot know which file is the archive; only the command does.
  struct stat archive;
  if (fstat(file->descriptor(), &archive) == 0 && S_ISREG(archive.st_mode)) event.leaveOut(archive);
  FilterProcess program;
  const int toProgram = program.startWriting(line.filterProgram, file->descriptor(), report);
  if (toProgram < 0) return {};
  std::unique_ptr<OutputFile> out(OutputFile::adopt(morvane::OsFile(toProgram), line.filterProgram.c_str()));
  // The program is ended and the file closed on this way out as well, by their destructors.
  if (!out) throw std::bad_alloc();
  // In this order, each step of which is needed for the next: the program ends when its input does, and the
  // file holds all of the archive once the program has ended. All of it is done also behind a failure, so
  // that each says what it has to say.
  const bool written = tar.WriteTar(*out, &event);
  // Not behind a failure, which says more.
  const bool isWhole = written || tar.get_OnlyLeftOut();
  const bool taken = !isWhole || program.takesAll(out->descriptor(), report);
  const bool closed = closeOutput(*out, line.filterProgram, report) && taken;
  const bool ended = program.finish(FilterProcess::End::Well, report);
  return behind(tar, written, closeOutput(*file, line.archive, report) && ended && closed);
}

// To a path, the component opens and closes the file; standard output and FIFOs are the command's to close,
// and the result counts only behind that.
Written write(ClsTar& tar, const CommandLine& line, CreateEvent& event, Report& report) {
  const XString path(line.archive);
  if (line.mode != Mode::Create) return behind(tar, tar.AppendTar(path, &event));
  if (!line.filterProgram.empty()) return writeThroughProgram(tar, line, event, report);
  const Compression compression = line.compressionToWrite();
  if (isOpenedByPath(line)) return behind(tar, writeAs(compression, tar, path, event));
  const std::unique_ptr<OutputFile> out = archiveFile(line, report);
  if (!out) return {};
  const bool written = writeAs(compression, tar, *out, event);
  const std::string name = line.usesStandardStream() ? kStandardOutput : line.archive;
  return behind(tar, written, closeOutput(*out, name, report));
}

// Says what became of the archive; the status. A signal may come behind the last question whether to abort,
// when the archive is there and done, and before the first member, while the sources are counted.
int endInterrupted(const CommandLine& line, Report& report, bool isBegun, bool isClosed) {
  report.notice(line.archive, isClosed                    ? "interrupted; the archive is complete"
                              : line.mode != Mode::Create ? "interrupted; the archive is as it was"
                              : isBegun                   ? "interrupted; the archive is incomplete"
                                                          : "interrupted; nothing was archived");
  return interruptStatus();
}

}  // namespace

// Options of the user come last, behind what the command asks for itself: the last of a word wins. A total is
// counted for a bar that may be shown only. What the component counts as left out is no failure if it was not
// wanted anyway. The last member is settled only if the run came to its end; one that broke off may be in it.
int writeArchive(CommandLine& line) {
  ProgressBar bar(line.progress);
  // Standard output may be the archive: then messages keep off it.
  Report report(bar, line.usesStandardStream());
  if (!isNoTerminal(line, report)) return report.finish();
  NewestCopies newest;
  // Before the sources are looked at: without the newest copies nothing could be said of any of them.
  if (line.mode == Mode::Update && !findNewestCopies(line, newest, report))
    return isInterrupted() ? endInterrupted(line, report, false, false) : report.finish();
  // Who can read the archive should be able to read what is appended. Attributes ask for their own form.
  if (line.mode != Mode::Create && line.format.empty() && !line.keeping.attributes())
    line.format = formOfArchive(line.archive);
  ClsTar tar;
  // What is named as missing here makes the status 2, but the rest is archived all the same.
  Sources sources(line, report, tar);
  sources.add();
  tar.put_WriteFormat(line.formatToWrite());
  // The bar's own parts, which are finer than percents: rate and time left are computed from them.
  tar.put_PercentScale(ProgressBar::kScale);
  tar.put_UncommonOptions(
      (line.writingWords() + (bar.mayBeShown() ? "" : ",NoTotal") + line.options).c_str());
  CreateEvent event(report, bar, tar, line, sources, newest);
  auto [ok, isClosed] = write(tar, line, event, report);
  ok = ok || (isClosed && event.missedOnlyUnwanted());
  bar.clear();
  if (line.printLog) report.log(tar);
  // Whatever the write returned: a signal explains it better than the reason that the component has.
  if (isInterrupted()) return endInterrupted(line, report, event.isArchiveBegun(), isClosed);
  if (isClosed) event.settle();
  if (!ok) report.failure(tar, line.archive);
  // Behind everything else that can fail, since nothing brings a removed file back. What was archived may go
  // although something else was left out; it may not where the archive itself failed.
  if (isClosed) event.removals().removeAll(report);
  if (line.totals) report.totals(event.members(), event.bytes());
  return report.finish();
}

}  // namespace mvtar

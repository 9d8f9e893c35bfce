// A walk over the archive before it is appended to. It is read twice then, because what is in it decides what
// is put behind it.
#include "cli/NewestCopies.h"

#include <sys/stat.h>

#include "cli/Dates.h"
#include "cli/Interrupt.h"
#include "cli/ReadArchive.h"
#include "runtime/progress/TarMemberInfo.h"

namespace mvtar {

namespace {

// Names as they are compared, because other tars store a leading "./".
class CopiesEvent : public morvane::ProgressEvent {
 public:
  explicit CopiesEvent(NewestCopies& newest) : m_newest(newest) {}
  void onAbortCheck(bool& abort) override { abort = isInterrupted(); }
  void onTarHeader(const morvane::TarMemberInfo& member) override {
    std::string name(comparablePath(member.path));
    const timespec time{static_cast<time_t>(member.mtime), static_cast<long>(member.mtimeNanoseconds)};
    // An archive that was appended to has several copies of a name, of which the newest counts.
    const auto [found, isNew] = m_newest.emplace(std::move(name), time);
    if (!isNew && isEarlier(found->second, time)) found->second = time;
  }

 private:
  NewestCopies& m_newest;
};

}  // namespace

// What is no plain archive, or no regular file, is left to the append, which refuses it in words of its own;
// a FIFO would be waited for. In an empty file there is nothing yet.
bool findNewestCopies(const CommandLine& line, NewestCopies& newest, Report& report) {
  struct stat status;
  if (stat(line.archive.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0)
    return true;
  ReadJob job(line, true);
  if (!job.archive.open(line, report)) return false;
  if (!job.archive.isPlain()) return true;
  // The words of a reading command, so that names and times come as records have them, fractions of a second
  // among them.
  job.tar.put_UncommonOptions(line.readingWords().c_str());
  CopiesEvent event(newest);
  if (job.tar.VerifyTar(job.archive.source(), &event)) return true;
  // Who asked says what an interrupt ended.
  if (!isInterrupted()) report.failure(job.tar, line.archive);
  return false;
}

}  // namespace mvtar

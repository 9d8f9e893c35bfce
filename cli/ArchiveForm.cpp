// By the magic of the first header. pax has that of ustar and differs by its records, of which there may be
// none in front of the first members.
#include "cli/ArchiveForm.h"

#include <sys/stat.h>

#include <cstring>

#include "cli/InterruptEvent.h"
#include "runtime/io/_mvFileDataSource.h"
#include "runtime/log/LogNull.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/text/XString.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarHeader.h"

namespace mvtar {

namespace {

// Version and all, because what other writers put there is no form that could be kept.
bool hasMagic(const unsigned char* block, const char* magic) {
  return std::memcmp(block + morvane::kMagicField.offset, magic, morvane::kMagicField.width) == 0;
}

// From the archive's start, header by header; their data are not read. Later headers of another form, which
// somebody has appended, change nothing. A header that cannot be read ends the search and is not told: the
// append meets it again.
std::string formBy(morvane::_mvDataSource& source, morvane::ProgressMonitor& monitor) {
  morvane::LogNull unwanted;
  morvane::TarHeader header;
  unsigned char block[morvane::kBlockSize];
  std::string form;
  for (long long at = 0; form.empty() || form == "ustar";) {
    bool ended = false;
    if (!header.parseFromDataSource(source, block, ended, unwanted, &monitor) || ended) break;
    if (!hasMagic(block, morvane::kUstarMagic))
      return form.empty() && hasMagic(block, morvane::kGnuMagic) ? "gnu" : form;
    const char type = header.m_typeFlag;
    form = type == morvane::kTypePax || type == morvane::kTypePaxGlobal ? "pax" : "ustar";
    // A claim that goes behind the end finds no header there.
    at = morvane::saturatedSum(morvane::saturatedSum(at, morvane::kBlockSize),
                               morvane::paddedSize(header.m_size));
    source.fseekAbsolute64(at, unwanted);
  }
  return form;
}

}  // namespace

// Only a regular file is opened, because a FIFO would be waited for. Opening may wait all the same, for a
// network, which an interrupt ends.
std::string formOfArchive(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  InterruptEvent event;
  morvane::ProgressMonitor monitor(event, 1, 0, 0);
  morvane::LogNull unwanted;
  morvane::_mvFileDataSource source;
  return source.openDataSourceFile(morvane::XString(path), unwanted, &monitor) ? formBy(source, monitor)
                                                                               : std::string();
}

}  // namespace mvtar

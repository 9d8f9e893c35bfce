// mvtar -t and --verify: archives that are read and not extracted.
//
// A plain list and --xml of some members are printed by events, as members come. --xml of a whole archive
// lists headers, records included, which only the component's own listing shows. Nothing is gathered: a list
// of any length takes no memory.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>

#include "cli/Commands.h"
#include "cli/JsonLine.h"
#include "cli/MemberEvent.h"
#include "cli/MemberKind.h"
#include "cli/Names.h"
#include "cli/ReadArchive.h"
#include "cli/StandardStreams.h"
#include "tar/format/TarHeader.h"
#include "tar/format/XmlListing.h"

namespace mvtar {

namespace {

using morvane::ClsTar;
using morvane::TarMemberInfo;

// Like ls -l. A set-id or sticky bit takes the place of its x, as a capital where there is no x.
std::string modeText(const TarMemberInfo& member) {
  std::string text(1, kindOf(member).letter);
  // Three bits each of owner, group and others.
  for (int shift = 6; shift >= 0; shift -= 3) {
    const unsigned bits = member.mode >> shift;
    text += bits & 4 ? 'r' : '-';
    text += bits & 2 ? 'w' : '-';
    text += bits & 1 ? 'x' : '-';
  }
  const auto special = [&text](size_t at, char set, char alone) { text[at] = text[at] == 'x' ? set : alone; };
  // The three stand in the places of the x of owner, group and others.
  if (member.mode & 04000) special(3, 's', 'S');
  if (member.mode & 02000) special(6, 's', 'S');
  if (member.mode & 01000) special(9, 't', 'T');
  return text;
}

// A name may be empty or hold anything; the number stands in for the first, escapes for the second.
std::string ownerText(const TarMemberInfo& member, bool byNumber) {
  const auto either = [byNumber](const char* name, long long id) {
    return *name && !byNumber ? shown(name) : std::to_string(id);
  };
  return either(member.userName, member.exactUid) + "/" + either(member.groupName, member.exactGid);
}

// Of a device its number, as other tars show it; of a sparse file its size with the holes.
std::string sizeText(const TarMemberInfo& member) {
  if (!kindOf(member).isDevice()) return std::to_string(member.realSize);
  return std::to_string(member.deviceMajor) + "," + std::to_string(member.deviceMinor);
}

// Local time, as other tars show it. Seconds, where the year does not fit or the text does not.
std::string timeText(long long seconds) {
  const time_t time = static_cast<time_t>(seconds);
  tm parts{};
  char text[64];
  if (!localtime_r(&time, &parts) || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

// Whether nobody takes what is printed any more. `finish` says so. Going on would be of no use to anybody.
bool outputIsBroken() { return StandardOutput::isBroken(); }

// Counts what is selected. What is printed of it, derived ones say. A directory counts without a size,
// whatever its header states.
class CountEvent : public MemberEvent {
 public:
  using MemberEvent::MemberEvent;

  // Heard with the next question, at the latest behind the member whose line could not be written.
  void onAbortCheck(bool& abort) override {
    MemberEvent::onAbortCheck(abort);
    // So that `mvtar -t | head` ends with head.
    abort = abort || outputIsBroken();
  }

 private:
  virtual void print(const TarMemberInfo&) {}

  void onSelected(const TarMemberInfo& member) final {
    count(member.isDirectory ? 0 : member.size);
    print(member);
  }
};

// -t: one line for each member. A long listing's columns cannot be known beforehand, because the list is
// printed as it is read.
class ListEvent : public CountEvent {
 public:
  using CountEvent::CountEvent;

 private:
  void print(const TarMemberInfo& member) override {
    if (!m_line.verbose) {
      m_report.name(member.path);
      return;
    }
    // The owner's and the size's columns widen as they need to, within reason.
    const std::string owner = ownerText(member, m_line.keeping.numericOwners);
    const std::string size = sizeText(member);
    const size_t needed = owner.size() + 1 + size.size();
    m_width = std::max(m_width, std::min(needed, kWidest));
    // At least one blank between the two.
    const std::string gap(1 + m_width - std::min(needed, m_width), ' ');
    // The words that other tars have for the two.
    const char* const link = member.typeFlag == kSymbolicLink ? " -> "
                             : member.typeFlag == kHardLink   ? " link to "
                                                              : "";
    m_report.name(member.path,
                  modeText(member) + " " + owner + gap + size + " " + timeText(member.mtime) + " ",
                  *link ? link + shown(member.linkPath) : "");
  }

  // A hostile owner's name must not push all later lines off the screen.
  static constexpr size_t kWidest = 80;
  // Of owner and size together: what fits most archives, as GNU tar begins.
  size_t m_width = 19;
};

// --json: one object a line for each member.
class JsonEvent : public CountEvent {
 public:
  using CountEvent::CountEvent;

 private:
  void print(const TarMemberInfo& member) override { m_report.text(jsonLine(member)); }
};

// --xml of the members that are asked for: each is put into the listing as its extension records leave it.
// Its header is made anew from what the event tells, in UTF-8 already.
class XmlEvent : public CountEvent {
 public:
  using CountEvent::CountEvent;

 private:
  void print(const TarMemberInfo& member) override {
    morvane::TarHeader header;
    // Only what the listing shows is filled in.
    header.setWholePath(member.path);
    header.m_typeFlag = member.typeFlag;
    header.m_isDirectory = member.isDirectory;
    header.m_size = member.size;
    header.m_mode = member.mode;
    header.m_uid = member.uid;
    header.m_gid = member.gid;
    header.m_exactMtime.seconds = member.mtime;
    header.m_linkName = member.linkPath;
    header.m_userName = std::make_unique<morvane::StringBuffer>(member.userName);
    header.m_groupName = std::make_unique<morvane::StringBuffer>(member.groupName);
    m_entry.clear();
    morvane::LogNull unwanted;
    header.toXmlEntry(m_entry, nullptr, "utf-8", nullptr, unwanted);  // decoded already
    m_report.text(m_entry.str());
  }

  // Kept for its memory: one entry is put together behind the other.
  morvane::XString m_entry;
};

// --xml of every header. What the component lists of a compressed archive is printed and taken away from it
// now and then, so that a listing of any length takes no memory.
class HeaderXmlEvent : public CountEvent {
 public:
  HeaderXmlEvent(Report& report, ProgressBar& bar, const CommandLine& line, ClsTar& tar)
      : CountEvent(report, bar, line), m_tar(tar) {}

  void onTarHeader(const TarMemberInfo& member) override {
    constexpr unsigned kAtATime = 64;
    // A listing is taken while the run goes on, which the property allows; 64 headers are some ten KiB.
    if (m_captures && ++m_headers % kAtATime == 0) printCaptured();
    CountEvent::onTarHeader(member);
  }

  // Of a plain archive the component writes the listing straight to an output. A compressed one can only be
  // listed by capturing.
  bool list(ReadJob& job) {
    if (job.archive.isPlain()) {
      Printer printer(m_report);
      return job.archive.listPlainXml(m_tar, printer, *this);
    }
    // The property is set back by nobody: the component lives for this one command.
    m_captures = true;
    m_tar.put_CaptureXmlListing(true);
    const bool ok = job.archive.read(m_tar, *this);
    printCaptured();
    // A run that its decompressor ended leaves the listing open.
    if (!m_isClosed) m_report.text(morvane::kXmlListingEnd);
    return ok;
  }

 private:
  // A listing's pieces, straight to standard output. A broken one fails the write, and with it the run.
  class Printer : public morvane::_mvOutput {
   public:
    explicit Printer(Report& report) : m_report(report) {}
    bool _writeBytes(const char* bytes, unsigned int n, morvane::_mvIoParams&, morvane::LogBase&) override {
      m_report.text({bytes, n});
      return !outputIsBroken();
    }

   private:
    Report& m_report;
  };

  // What is taken is taken away, by setting the property to nothing.
  void printCaptured() {
    morvane::XString listing;
    m_tar.get_XmlListing(listing);
    m_tar.put_XmlListing("");
    // What was captured last tells whether the component closed the listing.
    m_isClosed = listing.endsWithUtf8(morvane::kXmlListingEnd, false);
    m_report.text(listing.str());
  }

  ClsTar& m_tar;
  bool m_captures = false;
  bool m_isClosed = false;
  unsigned m_headers = 0;
};

// Opens the archive, has it read and ends the command. A run that was ended because nobody reads its output,
// or because enough was seen, has not failed.
template <class Event, class Read>
int list(ReadJob& job, Event& event, Read read) {
  if (!job.open()) return job.finish();
  job.tar.put_SuppressOutput(true);
  const bool ok = read(event) || event.enoughSeen();
  job.bar.clear();
  if (ok) event.nameUnfound();
  return job.finish(event, ok || outputIsBroken());
}

}  // namespace

// Four ways, in the order of what is asked for: JSON, lines, an XML listing of some members, the XML listing
// of everything.
int listArchive(const CommandLine& line) {
  ReadJob job(line, false);
  if (line.json) {
    JsonEvent event(job.report, job.bar, line);
    return list(job, event, [&](JsonEvent& members) { return job.archive.read(job.tar, members); });
  }
  // Names, or the long form with -v; the event looks at that itself.
  if (!line.xml) {
    ListEvent event(job.report, job.bar, line);
    return list(job, event, [&](ListEvent& names) { return job.archive.read(job.tar, names); });
  }
  // Only a run over members, which is what they go by, selects and counts.
  if (line.selects() || line.totals) {
    XmlEvent event(job.report, job.bar, line);
    return list(job, event, [&](XmlEvent& members) {
      job.report.text(morvane::kXmlListingStart);
      const bool ok = job.archive.read(job.tar, members);
      // Also behind a failure, so that what was listed stays well-formed.
      job.report.text(morvane::kXmlListingEnd);
      return ok;
    });
  }
  HeaderXmlEvent event(job.report, job.bar, line, job.tar);
  return list(job, event, [&](HeaderXmlEvent& headers) { return headers.list(job); });
}

// "Whole" is about headers and, of a compressed archive, what its checksums cover: plain tar has none of its
// data.
int verifyArchive(const CommandLine& line) {
  ReadJob job(line, false);
  if (!job.open()) return job.finish();
  job.tar.put_SuppressOutput(true);
  CountEvent event(job.report, job.bar, line);
  const bool ok = job.archive.read(job.tar, event);
  job.bar.clear();
  // A member continued from another volume is named as a problem by the event, and an archive that has one is
  // not called whole.
  if (ok && !job.report.anyProblem()) {
    job.report.line(shown(line.archive) + ": whole, " + std::to_string(event.members()) + " members");
  }
  return job.finish(event, ok);
}

}  // namespace mvtar

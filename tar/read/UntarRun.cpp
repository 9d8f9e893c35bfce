// The run is a loop over headers. Its order of steps and lines is what applications' logs have shown for
// years; so it stays where another order would read better. Positions are counted, not asked for: a source
// that cannot tell where it stands is read like any other.
#include "tar/read/UntarRun.h"

#include <algorithm>
#include <new>
#include <string>

#include "runtime/base/ScopeExit.h"
#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/ForwardingOutput.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/log/LogNull.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlEntry.h"
#include "tar/format/XmlListing.h"

namespace morvane {

namespace {

// Pieces in which data are copied; the smaller one where memory is short.
constexpr unsigned kCopyBufferSize = 40000;
constexpr unsigned kSmallCopyBufferSize = 20000;
// The number is of long standing: applications look for the line.
constexpr char kAborted[] = "Untar aborted by application. (1)";

// This engine offers every member to the event, and puts no directories where paths are discarded; the push
// engine does either only when told to.
constexpr MemberPlacer::Manner kManner{true, false, nullptr};

}  // namespace

// The words have to be known before the reader is chosen, and so the settings are refreshed in its
// initializer: members are initialized in the order in which they are declared, the settings first.
UntarRun::UntarRun(const Context& context, LiveSettings<ReadSettings> settings, bool extract)
    : m_context(context),
      m_io(m_context.io),
      m_log(m_io.log),
      m_live(std::move(settings)),
      m_settings(m_live.now()),
      m_reader(MemberReader::make((m_live.refresh(), demandOf(m_settings.options)))),
      m_member(m_reader->found()),
      m_placer(m_live, kManner),
      m_cursor(context.source, m_io.monitor) {
  if (extract && !m_settings.suppressOutput) m_aim = MemberPlacer::Aim::Extract;
}

// Without memory for a buffer the run fails before anything was touched.
int UntarRun::run() {
  LogContextExitor context(m_log, "_untar");
  if (m_log.verbose()) {
    m_log.LogData("mustMatch", m_settings.mustMatch.c_str());
    m_log.LogData("mustNotMatch", m_settings.mustNotMatch.c_str());
  }
  // A listing of an earlier call is replaced even if this one fails at its first header.
  if (m_settings.captureXmlListing) m_context.xmlListing.setFromUtf8(kXmlListingStart);
  // The log shows it also for runs that make nothing.
  m_log.LogDataX("UntarFromDir", m_settings.untarFromDir);
  const bool extracts = m_aim != MemberPlacer::Aim::Look;
  if (extracts && !m_settings.mustMatch.empty()) m_log.LogData("matchPattern", m_settings.mustMatch.c_str());
  for (const unsigned size : {kCopyBufferSize, kSmallCopyBufferSize}) {
    m_copyBuffer.own(mvNewChar(size));
    m_copyBufferSize = size;
    if (m_copyBuffer.get()) break;
  }
  if (!m_copyBuffer.get()) return -1;

  // Here, so that a run that failed before has touched nothing of the target.
  m_placer.beginRun();
  // Only where files are made is there anything that workers could do.
  if (m_aim == MemberPlacer::Aim::Extract) m_placer.beginBehind();
  Step step = Step::GoOn;
  {
    // An exception from a callback ends the run like any failure: the listing is closed, and what was made is
    // settled, which behind an exception nobody hears of.
    ScopeExit closeListing([this] {
      m_live.refresh();
      if (m_settings.captureXmlListing) endXmlListing(m_context.xmlListing);
    });
    while (step == Step::GoOn) {
      LogContextExitor fileContext(m_log, kFileContext);
      m_isInFileContext = true;
      step = nextEntry();
      m_isInFileContext = false;
    }
  }
  // What was chosen before a failure is made all the same.
  if (step == Step::Fail) {
    (void)m_placer.isFirstFailure(m_io, [this] { return doUndone(true); });
  } else {
    // They say it where each would have said it.
    LogContextExitor fileContext(m_log, kFileContext);
    m_isInFileContext = true;
    if (!doUndone(true)) step = Step::Fail;
  }
  m_placer.finish(m_io);
  // A run that failed has lost more than what it left out.
  m_onlyLeftOut = step != Step::Fail && m_placer.anyLeftOut();
  return step == Step::Fail || m_placer.anyLeftOut() ? -1 : m_count;
}

// Always false, for the caller to return.
bool UntarRun::failWith(const char* message, const char* tag, const XString& value) {
  m_log.LogError(message);
  m_log.LogDataX(tag, value);
  return false;
}

// Settings first, for everything behind them goes by what they are now. With AbortCheckMs of 0 nobody is
// asked between members.
UntarRun::Step UntarRun::nextEntry() {
  m_live.refresh();
  if (m_io.monitor && m_settings.abortCheckMs != 0 && m_io.monitor->abortCheck(m_log)) {
    return inTurn([](const Io& io) { return io.fail(kAborted); }) ? Step::GoOn : Step::Fail;
  }
  if (m_log.verbose()) {
    m_log.LogDataInt64("filePosition", m_filePosition);
    m_log.LogData("previousTypeFlag", typeText(m_previousTypeFlag).c_str());
  }
  MemberReader::Found found;
  if (!inTurn([&](const Io& io) { return readHeader(found, io); })) return Step::Fail;
  // What may follow the end mark is not read.
  if (found == MemberReader::Found::End) {
    if (m_log.verbose()) m_log.LogInfo("End-of-TAR");
    return Step::Stop;
  }
  if (m_log.verbose()) {
    m_log.LogData("currentTypeFlag", typeText(m_member.typeFlag).c_str());
    m_log.LogDataInt64("size", m_member.size);
  }
  return found == MemberReader::Found::Member ? handleMember() : handleRecord(found);
}

// The two messages tell a header that follows a record from one that does not: what is damaged is found more
// quickly with them. An abort has its own line first.
bool UntarRun::readHeader(MemberReader::Found& found, const Io& io) {
  const bool merges = m_reader->followsRecord();
  unsigned char block[kBlockSize];
  if (!TarHeader::readBlock(m_context.source, block, io.log, io.monitor) ||
      !m_reader->takeBlock(block, found, io.log)) {
    if (io.isAborted()) io.fail(kAborted);
    return io.fail(merges ? "Failed to parse header from data source (1)"
                          : "Failed to parse header from data source (2)");
  }
  m_cursor.passed(kBlockSize);
  if (!merges && io.log.verbose()) {
    const TarHeader& header = m_reader->header();
    if (!header.m_prefix.isEmpty()) io.log.LogDataSb("prefix", header.m_prefix);
    io.log.LogDataSb("name", header.m_name);
  }
  if (found == MemberReader::Found::Member && m_reader->wantsBlockBehind()) lookBehind(io);
  return true;
}

// A source that cannot show what comes next leaves the size as it is stated. One that fails here fails again
// with the read that follows, and tells it there.
void UntarRun::lookBehind(const Io& io) {
  const char* bytes = nullptr;
  unsigned n = 0;
  LogNull quiet;
  if (m_context.source.canPeek() && m_context.source.peekBytes(kBlockSize, bytes, n, io.monitor, quiet) &&
      n == kBlockSize) {
    m_reader->takeBlockBehind(reinterpret_cast<const unsigned char*>(bytes));
  }
}

// A record, or what is passed over like one. It is taken before the record is, since the full reader may
// change it.
UntarRun::Step UntarRun::handleRecord(MemberReader::Found found) {
  // The records may set a size; the header's own says where the next one lies.
  const long long ownSize = m_member.size;
  const bool isTaken =
      found != MemberReader::Found::Record || inTurn([this](const Io& io) { return takeRecord(io); });
  if (!isTaken) return Step::Fail;
  m_previousTypeFlag = m_member.typeFlag;
  // A global one is about all that follow, and waits for none. What is passed over takes what waited along.
  if (m_member.typeFlag != kTypePaxGlobal) m_recordWaits = found == MemberReader::Found::Record;
  return passOver(saturatedSum(m_filePosition, saturatedSum(kBlockSize, paddedSize(ownSize))));
}

// The lenient reader has lines of its own about records, which the full one does not: it says what is wrong
// itself.
bool UntarRun::takeRecord(const Io& io) {
  const bool isLongName = m_member.typeFlag == kTypeLongName;
  const bool tells = io.log.verbose() && !m_reader->isFull();
  if (tells)
    io.log.LogInfo(isLongName ? "Processing long filename header." : "Processing extended PAX header.");
  // A buffer for each record: the next one may be a few bytes, and this one megabytes.
  DataBuffer data;
  if (!readRecord(data, io)) return false;
  const auto* const text = reinterpret_cast<const char*>(data.getData2());
  // Up to its NUL, as the lenient reader takes it.
  if (tells && isLongName) io.log.LogData("longFilename", text);
  if (m_reader->takeRecord({text, data.getSize() - 1}, io.log)) return true;
  // Either reader's failure ends the run.
  if (!m_reader->isFull()) io.fail("Failed to parse PAX extended header.");
  return false;
}

// Reads the whole data of a record, and a NUL behind them. The NUL is for the lenient reader and the log,
// which take text as C strings; it is not counted in what the reader gets.
bool UntarRun::readRecord(DataBuffer& data, const Io& io) {
  const long long size = m_member.size;
  const std::string what = m_reader->recordName();
  if (!m_reader->acceptsRecordSize(size, m_settings.options.maxExtensionBytes, io.log)) return false;
  // Room for any path at once; what is larger grows by what arrives, whatever the header claims.
  constexpr long long kAtOnce = 100000;
  if (!data.reserveMore(static_cast<unsigned>(std::min(size, kAtOnce) + 1))) {
    return io.fail(("Out of memory for " + what + ".").c_str());
  }
  char piece[16 * 1024];
  for (long long left = size; left > 0;) {
    const auto wanted = static_cast<unsigned>(std::min<long long>(left, sizeof piece));
    unsigned got = 0;
    const bool ok = m_context.source.readFully(piece, wanted, got, io.monitor, m_context.componentLog);
    if (!ok || got < wanted) return io.fail(("Failed to read " + what + ".").c_str());
    if (!data.append(piece, got)) throw std::bad_alloc();
    left -= got;
  }
  m_cursor.passed(size);
  if (!data.appendChar('\0')) throw std::bad_alloc();
  return true;
}

// The further blocks of a sparse map stand between header and data, and are counted in no size. What is read
// of them is counted here, for the positions of headers.
bool UntarRun::passSparseMap(const Io& io) {
  unsigned char block[kBlockSize];
  for (bool goesOn = m_member.sparseMapGoesOn; goesOn; goesOn = m_reader->takeSparseBlock(block)) {
    unsigned numRead = 0;
    auto* const bytes = reinterpret_cast<char*>(block);
    if (!m_context.source.readFully(bytes, kBlockSize, numRead, io.monitor, io.log) || numRead < kBlockSize)
      return io.fail("Failed to read the map of a sparse member.");
    m_cursor.passed(kBlockSize);
    m_filePosition = saturatedSum(m_filePosition, kBlockSize);
  }
  return true;
}

// Listing, path, event, limits, and only then extraction: a member that is not extracted is listed and
// announced all the same. The stored path is given up once nobody looks at it any more. Data that were not
// read are passed over, whatever the reason. The position that is noted is the header's own, before the
// blocks of a map move it on.
UntarRun::Step UntarRun::handleMember() {
  m_member.headerPosition = m_filePosition;
  m_recordWaits = false;
  m_filePosition = saturatedSum(m_filePosition, kBlockSize);
  if (!inTurn([this](const Io& io) { return passSparseMap(io); })) return Step::Fail;
  if (m_settings.captureXmlListing) {
    toXmlEntry(m_member, m_context.xmlListing, nullptr, m_placer.path().decoder(m_settings, m_log));
  }
  m_placer.setPath(m_member, m_io);
  // The callback may change properties; the path is then set anew by them.
  m_placer.announce(m_member, m_io);
  giveUpLongText(m_member.path);
  if (!m_placer.isWithinLimits(m_io, [this] { return doUndone(true); })) return Step::Fail;
  bool extracted = false;
  const Step step = extractMember(extracted);
  if (step != Step::GoOn) return step;
  const XString& entryPath = m_placer.path().entryPath();
  if (!extracted && m_settings.untarDebugLog && !entryPath.isEmpty()) m_log.LogDataX("skipping", entryPath);
  m_previousTypeFlag = m_member.typeFlag;
  return passOver(saturatedSum(m_filePosition, paddedSize(m_member.size)));
}

// What the count means is the caller's question: members that pass the filter where nothing is written, else
// members that were made. UntarMaxCount is looked at behind a member, so that the one that reaches it is
// whole.
UntarRun::Step UntarRun::extractMember(bool& extracted) {
  using Choice = MemberPlacer::Choice;
  switch (m_placer.choose(m_member, m_aim, m_io, [this] { return doUndone(true); })) {
    case Choice::FilteredOut:
      if (m_log.verbose()) m_log.LogInfo("Skipping file because of match pattern.");
      return Step::GoOn;
    case Choice::Unwanted:
    case Choice::Skipped:
      return Step::GoOn;
    case Choice::Suppressed:
      ++m_count;  // what passes the filter counts, though nothing is written
      return Step::GoOn;
    // It has been said, and the run ends: what follows would be more of the same.
    case Choice::LimitReached:
      return Step::Fail;
    case Choice::Extract:
      break;
  }
  if (m_memberOutput) return copyMember();
  bool leftOut = false;
  if (!makeMember(leftOut)) return Step::Fail;
  if (leftOut) return Step::GoOn;
  extracted = true;
  ++m_count;
  if (m_settings.untarMaxCount == 0 || m_count < m_settings.untarMaxCount) return Step::GoOn;
  // Said, because the archive has more.
  m_log.LogInfo("Reached untar maximum count");
  m_log.LogDataLong("UntarMaxCount", m_settings.untarMaxCount);
  return Step::Stop;
}

// The caller's output is not owned, and gets zeros where a sparse member has holes. A member whose data are
// cut ends the run, because its output has a part of it and nothing could take that back.
UntarRun::Step UntarRun::copyMember() {
  const auto out =
      MemberPlacer::spreading(m_member, std::make_unique<ForwardingOutput>(*m_memberOutput), nullptr);
  if (!m_context.source.copyNToOutputPM(*out, m_member.size, m_io.monitor, m_log) ||
      !MemberPlacer::finishSpreading(*out, m_io)) {
    failWith("Failed to copy the member.", "entryPath", m_placer.path().entryPath());
    return Step::Fail;
  }
  m_cursor.passed(m_member.size);
  ++m_count;
  return m_firstAlone ? Step::Stop : Step::GoOn;
}

// Moves on to the header at a position of the archive. The sum may have been saturated by a claim; the next
// read then meets the end of the source.
UntarRun::Step UntarRun::passOver(long long upTo) {
  m_filePosition = upTo;
  const bool isThere = inTurn([&](const Io& io) {
    if (m_cursor.moveTo(upTo, io.log)) return true;
    if (io.isAborted()) io.fail(kAborted);
    return false;
  });
  return isThere ? Step::GoOn : Step::Fail;
}

}  // namespace morvane

#include "tar/read/UntarRun.h"

#include <algorithm>
#include <new>
#include <string>

#include "runtime/base/ScopeExit.h"
#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogCause.h"
#include "runtime/log/LogContextExitor.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlEntry.h"
#include "tar/format/XmlListing.h"
#include "tar/place/ExtractToFile.h"

namespace morvane {

namespace {

constexpr unsigned kCopyBufferSize = 40000;
constexpr unsigned kSmallCopyBufferSize = 20000;
constexpr char kAborted[] = "Untar aborted by application. (1)";

std::string typeText(char typeFlag) { return std::string(typeFlag ? 1 : 0, typeFlag); }

MorvaneFileTime fileTime(const TarTime& time) {
  return MorvaneFileTime::fromUnixTime64(time.seconds, time.nanoseconds);
}

}  // namespace

UntarRun::UntarRun(const Context& context, LiveSettings<ReadSettings> settings, bool extract)
    : m_context(context),
      m_log(context.log),
      m_live(std::move(settings)),
      m_settings(m_live.now()),
      m_reader(MemberReader::make((m_live.refresh(), m_settings.options.fullRead))),
      m_member(m_reader->found()),
      m_cursor(context.source, context.pm, context.log) {
  m_extract = extract && !m_settings.suppressOutput;
}

int UntarRun::run() {
  LogContextExitor context(m_log, "_untar");
  if (m_log.verbose()) {
    m_log.LogData("mustMatch", m_settings.mustMatch.c_str());
    m_log.LogData("mustNotMatch", m_settings.mustNotMatch.c_str());
  }
  if (m_settings.captureXmlListing) m_context.xmlListing.setFromUtf8(kXmlListingStart);
  m_log.LogDataX("UntarFromDir", m_settings.untarFromDir);
  if (m_extract && !m_settings.mustMatch.empty()) m_log.LogData("matchPattern", m_settings.mustMatch.c_str());
  for (const unsigned size : {kCopyBufferSize, kSmallCopyBufferSize}) {
    m_copyBuffer.own(mvNewChar(size));
    m_copyBufferSize = size;
    if (m_copyBuffer.get()) break;
  }
  if (!m_copyBuffer.get()) return -1;

  Step step = Step::GoOn;
  {
    // An exception from a callback ends the run like any failure: the listing is closed.
    ScopeExit closeListing([this] {
      m_live.refresh();
      if (m_settings.captureXmlListing) endXmlListing(m_context.xmlListing);
    });
    while (step == Step::GoOn) {
      LogContextExitor fileContext(m_log, "file");
      step = nextEntry();
    }
  }
  m_onlyLeftOut = step != Step::Fail && m_anyLeftOut;
  return step == Step::Fail || m_anyLeftOut ? -1 : m_count;
}

bool UntarRun::fail(const char* message) {
  m_log.LogError(message);
  return false;
}

bool UntarRun::failWith(const char* message, const char* tag, const XString& value) {
  m_log.LogError(message);
  m_log.LogDataX(tag, value);
  return false;
}

UntarRun::Step UntarRun::nextEntry() {
  m_live.refresh();
  if (m_context.pm && m_settings.abortCheckMs != 0 && m_context.pm->abortCheck(m_log)) {
    fail(kAborted);
    return Step::Fail;
  }
  if (m_log.verbose()) {
    m_log.LogDataInt64("filePosition", m_filePosition);
    m_log.LogData("previousTypeFlag", typeText(m_previousTypeFlag).c_str());
  }
  MemberReader::Found found;
  if (!readHeader(found)) return Step::Fail;
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

bool UntarRun::readHeader(MemberReader::Found& found) {
  const bool merges = m_reader->followsRecord();
  unsigned char block[kBlockSize];
  if (!TarHeader::readBlock(m_context.source, block, m_log, m_context.pm) ||
      !m_reader->takeBlock(block, found, m_log)) {
    if (m_context.pm && m_context.pm->isAborted()) fail(kAborted);
    return fail(merges ? "Failed to parse header from data source (1)"
                       : "Failed to parse header from data source (2)");
  }
  m_cursor.passed(kBlockSize);
  if (!merges && m_log.verbose()) {
    const TarHeader& header = m_reader->header();
    if (!header.m_prefix.isEmpty()) m_log.LogDataSb("prefix", header.m_prefix);
    m_log.LogDataSb("name", header.m_name);
  }
  return true;
}

// A record, or what is passed over like one.
UntarRun::Step UntarRun::handleRecord(MemberReader::Found found) {
  // The records may set a size; the header's own says where the next one lies.
  const long long ownSize = m_member.size;
  if (found == MemberReader::Found::Record && !takeRecord()) return Step::Fail;
  m_previousTypeFlag = m_member.typeFlag;
  return passOver(saturatedSum(m_filePosition, saturatedSum(kBlockSize, paddedSize(ownSize))));
}

bool UntarRun::takeRecord() {
  const bool isLongName = m_member.typeFlag == kTypeLongName;
  const bool tells = m_log.verbose() && !m_reader->isFull();
  if (tells)
    m_log.LogInfo(isLongName ? "Processing long filename header." : "Processing extended PAX header.");
  DataBuffer data;
  if (!readRecord(data)) return false;
  const auto* const text = reinterpret_cast<const char*>(data.getData2());
  if (tells && isLongName) m_log.LogData("longFilename", text);
  if (m_reader->takeRecord({text, data.getSize() - 1}, m_log)) return true;
  if (!m_reader->isFull()) fail("Failed to parse PAX extended header.");
  return false;
}

// Reads the whole data of a record, and a NUL behind them.
bool UntarRun::readRecord(DataBuffer& data) {
  const long long size = m_member.size;
  const std::string what = m_reader->recordName();
  if (!m_reader->acceptsRecordSize(size, m_settings.options.maxExtensionBytes, m_log)) return false;
  // Room for any path at once; what is larger grows by what arrives, whatever the header claims.
  constexpr long long kAtOnce = 100000;
  if (!data.reserveMore(static_cast<unsigned>(std::min(size, kAtOnce) + 1))) {
    return fail(("Out of memory for " + what + ".").c_str());
  }
  char piece[16 * 1024];
  for (long long left = size; left > 0;) {
    const auto wanted = static_cast<unsigned>(std::min<long long>(left, sizeof piece));
    unsigned got = 0;
    const bool ok = m_context.source.readFully(piece, wanted, got, m_context.pm, m_context.componentLog);
    if (!ok || got < wanted) return fail(("Failed to read " + what + ".").c_str());
    if (!data.append(piece, got)) throw std::bad_alloc();
    left -= got;
  }
  m_cursor.passed(size);
  if (!data.appendChar('\0')) throw std::bad_alloc();
  return true;
}

// The further blocks of a sparse map stand between header and data, and are counted in no size.
bool UntarRun::passSparseMap() {
  char block[kBlockSize];
  for (bool goesOn = m_member.sparseMapGoesOn; goesOn; goesOn = block[kSparseGoesOnInMap] != 0) {
    unsigned numRead = 0;
    if (!m_context.source.readFully(block, kBlockSize, numRead, m_context.pm, m_log) || numRead < kBlockSize)
      return fail("Failed to read the map of a sparse member.");
    m_cursor.passed(kBlockSize);
    m_filePosition = saturatedSum(m_filePosition, kBlockSize);
  }
  return true;
}

UntarRun::Step UntarRun::handleMember() {
  m_member.headerPosition = m_filePosition;
  m_filePosition = saturatedSum(m_filePosition, kBlockSize);
  if (!passSparseMap()) return Step::Fail;
  if (m_settings.captureXmlListing) {
    toXmlEntry(m_member, m_context.xmlListing, nullptr, m_path.decoder(m_settings, m_log));
  }
  m_path.set(m_member, m_settings, m_log);
  if (m_context.event) {
    announceHeader(*m_context.event, m_member, m_path.entryPath());
    if (m_live.refresh()) m_path.set(m_member, m_settings, m_log);
  }
  giveUpLongText(m_member.path);
  if (!m_limits.takeMember(m_path.entryPath().str(), m_settings.options, m_context.event, m_log)) {
    return Step::Fail;
  }
  bool extracted = false;
  const Step step = extractMember(extracted);
  if (step != Step::GoOn) return step;
  if (!extracted && m_settings.untarDebugLog && !m_path.entryPath().isEmpty()) {
    m_log.LogDataX("skipping", m_path.entryPath());
  }
  m_previousTypeFlag = m_member.typeFlag;
  return passOver(saturatedSum(m_filePosition, paddedSize(m_member.size)));
}

UntarRun::Step UntarRun::extractMember(bool& extracted) {
  if (m_settings.filter.excludes(m_path.entryPath().str())) {
    if (m_log.verbose()) m_log.LogInfo("Skipping file because of match pattern.");
    return Step::GoOn;
  }
  if (m_memberOutput && m_member.isDirectory) return Step::GoOn;
  if (!m_extract) {
    ++m_count;
    return Step::GoOn;
  }
  const long long dataSize = m_member.dataSize();
  if (!m_memberOutput && !mayExtract(dataSize)) return Step::Fail;
  if (m_context.event) {
    bool skip = false;
    m_context.event->onTarEntry(m_path.outputPath().getUtf8(), dataSize, m_member.isDirectory, skip);
    m_live.refresh();
    if (skip) return Step::GoOn;
  }
  if (m_memberOutput) return copyMember();
  m_limits.tookData(dataSize);
  bool leftOut = false;
  if (!(m_member.isDirectory ? extractDirectory(leftOut) : extractFile(leftOut))) return Step::Fail;
  if (leftOut) {
    m_anyLeftOut = true;
    return Step::GoOn;
  }
  extracted = true;
  ++m_count;
  if (m_settings.untarMaxCount != 0 && m_count >= m_settings.untarMaxCount) {
    m_log.LogInfo("Reached untar maximum count");
    m_log.LogDataLong("UntarMaxCount", m_settings.untarMaxCount);
    return Step::Stop;
  }
  return Step::GoOn;
}

// The limits for what is extracted, asked before it is announced.
bool UntarRun::mayExtract(long long dataSize) {
  return RunLimits::mayMake(m_path.entryPath().str(), m_settings.options, m_context.event, m_log) &&
         m_limits.mayTakeData(dataSize, m_settings.options, m_context.event, m_log);
}

UntarRun::Step UntarRun::copyMember() {
  if (!m_context.source.copyNToOutputPM(*m_memberOutput, m_member.size, m_context.pm, m_log)) {
    failWith("Failed to copy the member.", "entryPath", m_path.entryPath());
    return Step::Fail;
  }
  ++m_count;
  return Step::Stop;
}

bool UntarRun::extractDirectory(bool& leftOut) {
  if (m_settings.untarDiscardPaths) return true;
  if (m_settings.untarDebugLog) m_log.LogDataX("dir", m_path.entryPath());
  if (m_log.verbose()) m_log.LogDataX("createDir", m_path.outputPath());
  LogCause quiet;
  const auto outcome = m_target.makeDirectory(m_path, m_settings, m_log.verbose() ? m_log : quiet, m_log);
  leftOut = leavesOut(outcome, m_target.lastError(), m_path, m_settings, m_context.event, m_log);
  return leftOut || outcome == ExtractTarget::Outcome::Ok ||
         failWith("Unable to create directory", "dirPath", m_path.outputPath());
}

bool UntarRun::extractFile(bool& leftOut) {
  if (m_settings.untarDebugLog) m_log.LogDataX("file", m_path.entryPath());
  if (m_log.verbose()) m_log.LogDataX("outputFile", m_path.outputPath());
  LogCause quiet;
  std::unique_ptr<OutputFile> file;
  LogBase& directoryLog = m_log.verbose() ? m_log : quiet;
  const bool confined = m_settings.options.confine != Confine::Off;
  // Where plain creation fails, extractToFile tries again and says why.
  bool triesAgain = !confined && !m_settings.options.skipUncreatable;
  const ExtractTarget::Outcome outcome =
      m_target.createFile(m_path, m_settings, nullptr, directoryLog, triesAgain ? quiet : m_log, file);
  if (outcome == ExtractTarget::Outcome::NoParent) m_log.adoptCause(quiet);
  triesAgain = triesAgain && outcome == ExtractTarget::Outcome::NotCreated;
  leftOut = leavesOut(outcome, m_target.lastError(), m_path, m_settings, m_context.event, m_log);
  if (leftOut) return true;
  if (outcome == ExtractTarget::Outcome::NoTarget || outcome == ExtractTarget::Outcome::NoParent) {
    return failWith("Failed to ensure directory exists.", "filePath", m_path.outputPath());
  }
  if (!file && !triesAgain) {
    {
      LogContextExitor context(m_log, "extractToFile");
      m_log.LogError("Failed to create OutputFile");
    }
    return failWith("Failed to extract to file.", "filePath", m_path.outputPath());
  }
  const MorvaneFileTime modification = fileTime(m_member.mtime), access = fileTime(m_member.atime),
                        creation = fileTime(m_member.ctime);
  MemberTimes times;
  times.modification = &modification;
  if (m_member.atime.known) times.access = &access;
  if (m_member.ctime.known) times.creation = &creation;
  const Extraction done =
      extractToFile(m_context.source, m_path.outputPath(), std::move(file), times, m_member.size,
                    m_copyBuffer.get(), m_copyBufferSize, m_log, m_context.pm);
  if (!done.isWhole && !done.hasFailedAlone) {
    return failWith("Failed to extract to file.", "filePath", m_path.outputPath());
  }
  m_cursor.passed(m_member.size);
  leftOut = !done.isWhole;
  if (leftOut) {
    reportIncomplete(m_path, m_context.event, m_log);
  } else if (!done.timesAreSet) {
    reportTimesNotSet(m_path, m_context.event, m_log);
  }
  return true;
}

// Moves on to the header at a position of the archive.
UntarRun::Step UntarRun::passOver(long long upTo) {
  m_filePosition = upTo;
  if (m_cursor.moveTo(upTo)) return Step::GoOn;
  if (m_context.pm && m_context.pm->isAborted()) fail(kAborted);
  return Step::Fail;
}

}  // namespace morvane

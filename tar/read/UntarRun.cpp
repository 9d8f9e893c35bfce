#include "tar/read/UntarRun.h"

#include <string>

#include "runtime/base/ScopeExit.h"
#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/OutputDataBuffer.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogCause.h"
#include "runtime/log/LogContextExitor.h"
#include "tar/format/PaxRecords.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlEntry.h"
#include "tar/format/XmlListing.h"
#include "tar/place/ExtractToFile.h"

namespace morvane {

namespace {

constexpr unsigned kCopyBufferSize = 40000;
constexpr unsigned kSmallCopyBufferSize = 20000;
// Extension data are read whole; what is larger than this is no path.
constexpr long long kLongestExtension = 100000;

constexpr char kAborted[] = "Untar aborted by application. (1)";

std::string typeText(char typeFlag) { return std::string(typeFlag ? 1 : 0, typeFlag); }

MorvaneFileTime fileTime(unsigned seconds, const TarTime& exact, bool full) {
  return full && exact.known ? MorvaneFileTime::fromUnixTime64(exact.seconds, exact.nanoseconds)
                             : MorvaneFileTime::fromUnixTime32(seconds);
}

}  // namespace

UntarRun::UntarRun(const Context& context, LiveSettings<ReadSettings> settings, bool extract)
    : m_context(context),
      m_log(context.log),
      m_live(std::move(settings)),
      m_settings(m_live.now()),
      m_cursor(context.source, context.pm, context.log) {
  m_live.refresh();
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
  char typeFlag = '\0';
  if (!readHeader(typeFlag)) return Step::Fail;
  if (m_endOfArchive) {
    if (m_log.verbose()) m_log.LogInfo("End-of-TAR");
    return Step::Stop;
  }
  if (m_log.verbose()) {
    m_log.LogData("currentTypeFlag", typeText(typeFlag).c_str());
    m_log.LogDataInt64("size", m_current.m_size);
  }
  const bool isExtension = m_settings.options.fullRead
                               ? FullExtensions::isRecord(typeFlag) || FullExtensions::isPassedOver(typeFlag)
                               : typeFlag == kTypePax || typeFlag == kTypeLongName;
  return isExtension ? handleExtension(typeFlag) : handleMember(typeFlag);
}

bool UntarRun::readHeader(char& typeFlag) {
  const bool merge = m_previousTypeFlag == kTypeLongName || m_previousTypeFlag == kTypePax;
  const bool intoFollowing = merge && !m_settings.options.fullRead;
  TarHeader& header = intoFollowing ? m_following : m_current;
  if (!header.parseFromDataSource(m_context.source, nullptr, m_endOfArchive, m_log, m_context.pm)) {
    if (m_context.pm && m_context.pm->isAborted()) fail(kAborted);
    return fail(merge ? "Failed to parse header from data source (1)"
                      : "Failed to parse header from data source (2)");
  }
  m_cursor.passed(kBlockSize);
  typeFlag = header.m_typeFlag;
  if (intoFollowing) {
    if (m_previousTypeFlag == kTypePax) {
      combineHeaderPaxExtended(m_following, m_current);
    } else {
      combineHeaderLongFilename(m_following, m_current);
    }
  } else if (!merge && m_log.verbose()) {
    if (!m_current.m_prefix.isEmpty()) m_log.LogDataSb("prefix", m_current.m_prefix);
    m_log.LogDataSb("name", m_current.m_name);
  }
  return true;
}

UntarRun::Step UntarRun::handleExtension(char typeFlag) {
  // The records may set a size; the header's own says where the next one lies.
  const long long ownSize = m_current.m_size;
  const Step step = m_settings.options.fullRead ? takeFullExtension(typeFlag)
                    : typeFlag == kTypePax      ? takePaxHeader()
                                                : takeLongName();
  if (step != Step::GoOn) return step;
  m_previousTypeFlag = typeFlag;
  return passOver(saturatedSum(m_filePosition, saturatedSum(kBlockSize, paddedSize(ownSize))));
}

// Reads the whole data of an extension record of 1 to 100,000 bytes as NUL-terminated text. `what` names the
// record in the messages.
bool UntarRun::readExtensionData(const char* what) {
  const long long size = m_current.m_size;
  if (size < 1 || size > kLongestExtension) {
    m_log.LogError((std::string("Invalid size in ") + what + ".").c_str());
    m_log.LogDataInt64("size", size);
    return false;
  }
  const unsigned n = static_cast<unsigned>(size);
  m_extensionData.own(mvNewChar(n + 1));
  char* const text = m_extensionData.get();
  if (!text) return fail((std::string("Out of memory for ") + what + ".").c_str());
  unsigned numRead = 0;
  if (!m_context.source.readFully(text, n, numRead, m_context.pm, m_context.componentLog) || numRead < n) {
    return fail((std::string("Failed to read ") + what + ".").c_str());
  }
  m_cursor.passed(size);
  text[n] = '\0';
  return true;
}

UntarRun::Step UntarRun::takePaxHeader() {
  if (m_log.verbose()) m_log.LogInfo("Processing extended PAX header.");
  if (!readExtensionData("PAX extended header")) return Step::Fail;
  if (!parsePaxExtendedHeader(m_extensionData.get(), m_current, m_log)) {
    fail("Failed to parse PAX extended header.");
    return Step::Fail;
  }
  return Step::GoOn;
}

UntarRun::Step UntarRun::takeLongName() {
  if (m_log.verbose()) m_log.LogInfo("Processing long filename header.");
  if (!readExtensionData("long filename header")) return Step::Fail;
  if (m_log.verbose()) m_log.LogData("longFilename", m_extensionData.get());
  m_current.setWholePath(m_extensionData.get());
  return Step::GoOn;
}

UntarRun::Step UntarRun::takeFullExtension(char typeFlag) {
  if (FullExtensions::isPassedOver(typeFlag)) {
    m_extensions.forgetNext();
    return Step::GoOn;
  }
  const long long size = m_current.m_size;
  if (size > m_settings.options.maxExtensionBytes) {
    m_log.LogError("Extension data too large.");
    m_log.LogDataInt64("size", size);
    return Step::Fail;
  }
  DataBuffer data;  // grows by what arrives, whatever the header claims
  OutputDataBuffer out(data);
  if (!m_context.source.copyNToOutputPM(out, size, m_context.pm, m_context.componentLog)) {
    fail("Failed to read extension data.");
    return Step::Fail;
  }
  m_cursor.passed(size);
  const std::string_view bytes(reinterpret_cast<const char*>(data.getData2()), data.getSize());
  return m_extensions.take(typeFlag, bytes, m_log) ? Step::GoOn : Step::Fail;
}

// The further blocks of a sparse map stand between header and data, and are counted in no size.
bool UntarRun::passSparseMap() {
  char block[kBlockSize];
  for (bool goesOn = m_current.m_sparseMapGoesOn; goesOn; goesOn = block[kSparseGoesOnInMap] != 0) {
    unsigned numRead = 0;
    if (!m_context.source.readFully(block, kBlockSize, numRead, m_context.pm, m_log) || numRead < kBlockSize)
      return fail("Failed to read the map of a sparse member.");
    m_cursor.passed(kBlockSize);
    m_filePosition = saturatedSum(m_filePosition, kBlockSize);
  }
  return true;
}

UntarRun::Step UntarRun::handleMember(char typeFlag) {
  if (m_settings.options.fullRead) m_extensions.complete(m_current);
  const long long headerPosition = m_filePosition;
  m_filePosition = saturatedSum(m_filePosition, kBlockSize);
  if (m_settings.options.fullRead && !passSparseMap()) return Step::Fail;
  if (m_settings.captureXmlListing) {
    toXmlEntry(m_current, m_context.xmlListing, nullptr, m_path.decoder(m_settings, m_log));
  }
  m_path.set(m_current, m_settings, m_log);
  if (m_context.event) {
    announceHeader(*m_context.event, m_current, m_path.entryPath(), headerPosition, m_settings);
    if (m_live.refresh()) m_path.set(m_current, m_settings, m_log);
  }
  giveUpLongText(m_current.m_path);
  if (!m_limits.takeMember(m_path.entryPath().str(), m_settings.options, m_context.event, m_log)) {
    return Step::Fail;
  }
  bool extracted = false;
  const Step step = extractMember(extracted);
  if (step != Step::GoOn) return step;
  if (!extracted && m_settings.untarDebugLog && !m_path.entryPath().isEmpty()) {
    m_log.LogDataX("skipping", m_path.entryPath());
  }
  m_previousTypeFlag = typeFlag;
  return passOver(saturatedSum(m_filePosition, paddedSize(m_current.m_size)));
}

UntarRun::Step UntarRun::extractMember(bool& extracted) {
  if (m_settings.filter.excludes(m_path.entryPath().str())) {
    if (m_log.verbose()) m_log.LogInfo("Skipping file because of match pattern.");
    return Step::GoOn;
  }
  if (m_memberOutput && m_current.m_isDirectory) return Step::GoOn;
  if (!m_extract) {
    ++m_count;
    return Step::GoOn;
  }
  const long long dataSize = m_current.m_isDirectory ? 0 : m_current.m_size;
  if (!m_memberOutput && !mayExtract(dataSize)) return Step::Fail;
  if (m_context.event) {
    bool skip = false;
    m_context.event->onTarEntry(m_path.outputPath().getUtf8(), dataSize, m_current.m_isDirectory, skip);
    m_live.refresh();
    if (skip) return Step::GoOn;
  }
  if (m_memberOutput) return copyMember();
  m_limits.tookData(dataSize);
  bool leftOut = false;
  if (!(m_current.m_isDirectory ? extractDirectory(leftOut) : extractFile(leftOut))) return Step::Fail;
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
  if (!m_context.source.copyNToOutputPM(*m_memberOutput, m_current.m_size, m_context.pm, m_log)) {
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
  const bool full = m_settings.options.fullRead;
  const MorvaneFileTime modification = fileTime(m_current.m_mtime, m_current.m_exactMtime, full);
  const MorvaneFileTime access = fileTime(m_current.m_atime, m_current.m_exactAtime, full);
  const MorvaneFileTime creation = fileTime(m_current.m_ctime, m_current.m_exactCtime, full);
  MemberTimes times;
  times.modification = &modification;
  if (full ? m_current.m_exactAtime.known : m_current.m_atime != 0) times.access = &access;
  if (full ? m_current.m_exactCtime.known : m_current.m_ctime != 0) times.creation = &creation;
  const Extraction done =
      extractToFile(m_context.source, m_path.outputPath(), std::move(file), times, m_current.m_size,
                    m_copyBuffer.get(), m_copyBufferSize, m_log, m_context.pm);
  if (!done.isWhole && !done.hasFailedAlone) {
    return failWith("Failed to extract to file.", "filePath", m_path.outputPath());
  }
  m_cursor.passed(m_current.m_size);
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

// The push-driven reader: extracts a tar stream that arrives in pieces of any size, with no relation between
// pieces and blocks.
//
// It never reads; whoever holds the bytes hands them in. All state stays between calls, so that a piece may
// end in the middle of a header, a file's data or its padding. Rules for members are those of the pull engine
// (tar/read/UntarRun.h), through the same functions; order and messages are each engine's own.
#pragma once

#include <memory>

#include "runtime/buffer/DataBuffer.h"
#include "tar/format/MemberReader.h"
#include "tar/place/ExtractTarget.h"
#include "tar/place/MemberPath.h"
#include "tar/place/RunLimits.h"
#include "tar/settings/LiveSettings.h"
#include "tar/settings/ReadSettings.h"

namespace morvane {

class LogBase;
class OutputFile;
class ProgressMonitor;
class XString;
class _mvOutput;

class StreamingUntar {
 public:
  // `xmlListing` receives a captured listing.
  StreamingUntar(LiveSettings<ReadSettings> settings, XString& xmlListing)
      : m_live(std::move(settings)), m_settings(m_live.now()), m_xmlListing(xmlListing) {}
  ~StreamingUntar();

  void BeginStreamingUntar();
  bool StreamingUntarNext(const unsigned char* data, unsigned numBytes, bool& finished, ProgressMonitor* pm,
                          LogBase& log);
  bool FinishStreamingUntar(ProgressMonitor* pm, LogBase& log);
  // One step: consumes what it can of one piece, or of what earlier pieces left, and returns.
  bool streamingUntarInner(const unsigned char* data, unsigned numBytes, bool& finished, ProgressMonitor* pm,
                           LogBase& log);

  // Instead of files: offers each file member to the event (onTarEntry), streams the first that is not
  // skipped into `out`, and is then done. Null goes back to files.
  void extractFirstMemberInto(_mvOutput* out) { m_memberOutput = out; }
  // Whether such a member was found and all of its data have arrived.
  bool memberIsComplete() const { return m_memberComplete; }

  // Ends the run where it stands, without a result: nothing more is taken until another one begins.
  void breakOff();
  // Before bytes that go on from the state of the last run: nothing of that run's target or names is kept.
  void beginUnframed();
  // Gives up the descriptors of the target directory.
  void releaseTarget() { m_target.reset(); }
  // The archive that the stream comes from, which extraction must not replace (with Confine).
  void protect(const mvFileInfo& archive) { m_target.protect(archive); }
  // For a run that ends without FinishStreamingUntar: what is still buffered goes to the open file, which
  // stays open.
  bool flushOpenOutput(ProgressMonitor* pm, LogBase& log);
  void releaseOutput();
  // Whether members were left out since the run, or an unframed one, began.
  bool anyLeftOut() const { return m_anyLeftOut; }
  // The same of a run that came to its end without any failure.
  bool onlyLeftOut() const { return m_anyLeftOut && m_streamOk && m_hasEnded; }

 private:
  void resetRun();
  bool takeStep(const unsigned char* data, unsigned numBytes, bool& finished, ProgressMonitor* pm,
                LogBase& log);
  bool consumePadding();
  bool consumeData(ProgressMonitor* pm, LogBase& log);
  bool consumeHeader(bool& finished, ProgressMonitor* pm, LogBase& log);
  bool consumeSparseMap(bool& finished, ProgressMonitor* pm, LogBase& log);
  bool takeHeader(bool& finished, ProgressMonitor* pm, LogBase& log);
  bool parseHeader(const unsigned char* block, bool& finished, LogBase& log);
  bool applyExtensionData(LogBase& log);
  bool closeEmptyFile(ProgressMonitor* pm, LogBase& log);
  bool beginEntry(bool& finished, ProgressMonitor* pm, LogBase& log);
  bool beginExtension(bool& finished, LogBase& log);
  bool beginFile(bool skipped, bool& finished, ProgressMonitor* pm, LogBase& log);
  bool beginDirectory(bool skipped, bool& finished, ProgressMonitor* pm, LogBase& log);
  bool createOutputFile(bool& leftOut, bool& finished, ProgressMonitor* pm, LogBase& log);
  bool mayExtract(long long dataSize, ProgressMonitor* pm, LogBase& log);
  bool isLeftOut() const;
  bool isSkippedByEvent(ProgressMonitor* pm);
  bool write(const char* bytes, unsigned n, int variant, ProgressMonitor* pm, LogBase& log);
  bool writeHasFailed(int variant, LogBase& log);
  bool finishEntry(int variant, ProgressMonitor* pm, LogBase& log);
  void completeMember();
  bool goesOnWithout(ProgressMonitor* pm, LogBase& log);
  bool closeOutputFile(ProgressMonitor* pm, LogBase& log);
  void eat(unsigned n);
  void setOutput(std::unique_ptr<_mvOutput> output, OutputFile* file);
  bool stop(const char* message, bool& finished, LogBase& log);

  LiveSettings<ReadSettings> m_live;  // taken anew at each header
  const ReadSettings& m_settings;
  XString& m_xmlListing;

  DataBuffer m_streamPending;              // received and not yet consumed
  std::unique_ptr<MemberReader> m_reader;  // null until the first header; holds the current entry
  MemberReader::Found m_found = MemberReader::Found::Member;  // what the current entry is
  char m_streamPrevTypeFlag = ' ';
  DataBuffer m_streamExtData;                 // of the last extension entry
  std::unique_ptr<_mvOutput> m_streamOutput;  // of the current entry's data
  OutputFile* m_streamOutFile = nullptr;      // the same object when it is a file
  long long m_streamExpectedSize = 0;
  long long m_streamBytesLeft = 0;
  long long m_streamBytesWritten = 0;
  unsigned m_streamPaddingLeft = 0;
  bool m_streamFinished = false;
  bool m_streamOk = true;

  long long m_streamPosition = 0;  // bytes consumed: where the next header begins
  _mvOutput* m_memberOutput = nullptr;
  bool m_memberFound = false;
  bool m_memberComplete = false;
  bool m_inSparseMap = false;  // between the current entry's header and its data
  bool m_endMarkSeen = false;
  bool m_hasEnded = false;   // FinishStreamingUntar was called
  bool m_brokenOff = false;  // by an exception of a callback, or before it began
  bool m_anyLeftOut = false;
  bool m_writeFailed = false;  // of the open output
  MemberPath m_path;
  ExtractTarget m_target;
  RunLimits m_limits;
};

}  // namespace morvane

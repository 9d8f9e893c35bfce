// What each target does with its bytes. Results that anybody relies on are required; most are not looked at,
// because that a target returns at all is what is asked of it.
#include "fuzz/Targets.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "runtime/codec/MorvaneLzw.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/text/CharsetDecoder.h"
#include "tar/ClsTar.h"
#include "tar/format/FullExtensions.h"
#include "tar/format/Member.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlEntry.h"

namespace morvane::fuzz {

namespace {

// By abort, because that is what a fuzzing engine takes for a find, whose input it then keeps. assert would
// be gone from an optimised build.
void require(bool promise, const char* what) {
  if (promise) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

// Decompressors can make very much of very little; this is enough to see. Refusing more ends the target well
// before an engine would call it a hang.
class BoundedOutput : public _mvOutput {
 public:
  bool _writeBytes(const char*, unsigned int n, _mvIoParams&, LogBase&) override { return (m_left -= n) > 0; }

 private:
  long long m_left = 16 << 20;
};

// The members that an engine saw, in all that a header says of them and both engines have to agree on: type,
// names, size, and where the header stands. Directories with data end the comparison: the pull engine passes
// their data over, the push engine takes them to have none, so that from there on they read different
// headers.
class Members : public ProgressEvent {
 public:
  void onTarHeader(const TarMemberInfo& member) override {
    if (m_ended) return;
    m_ended = member.isDirectory && member.size > 0;
    list.push_back(std::string(1, member.typeFlag) + member.path + "\n" + member.linkPath + "\n" +
                   std::to_string(member.size) + "@" + std::to_string(member.headerPosition));
  }
  bool ended() const { return m_ended; }
  std::vector<std::string> list;

 private:
  bool m_ended = false;
};

// The full reader, which is the same for both; the end mark asked of both, since the engines differ in what
// they make of an archive without one; and a bound on extension records, which a header may claim to have any
// size.
constexpr char kFull[] = "FullRead,RequireEndOfArchive,MaxExtensionBytes=1000000";

}  // namespace

// What a reader does with a block, and then what a listing does.
void header(const uint8_t* data, size_t size) {
  // parseFromMemory is given whole blocks by its callers and reads 512 bytes.
  if (size < kBlockSize) return;
  TarHeader record;
  LogNull log;
  bool end = false;
  if (!record.parseFromMemory(data, end, log)) return;
  require(record.m_size >= 0, "a size is never negative");
  // What is shown of a header goes into XML, whatever bytes it has.
  XString xml;
  CharsetDecoder decoder("utf-8");
  Member shown;
  shown.copyHeader(record);
  toXmlEntry(shown, xml, nullptr, decoder);
  StringBuffer fields;
  TarHeader::getFieldsQP(data, fields);
  // The dump of the fields stands in such a section of a listing (docs/xml-listing.md).
  require(fields.str().find("]]>") == std::string::npos, "a field dump never ends a CDATA section");
}

// The lenient reader ends at a NUL, and so gets the text up to the first one; the full one goes by lengths.
void pax(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  LogNull log;
  TarHeader record;
  require(ClsTar::parsePaxExtendedHeader(text.c_str(), record, log),
          "lines that make no sense are passed over");
  FullExtensions extensions(true);
  // Whether these make sense is not asked: what was taken before a mistake has to be put together, too.
  extensions.take(kTypePaxGlobal, text, log);
  extensions.take(kTypePax, text, log);
  Member member;
  extensions.complete(record, member);
  require(record.m_size >= 0, "a size is never negative");
}

// SuppressOutput, here and below: nothing is written to the disk, whatever paths an input has.
void gzipHeader(const uint8_t* data, size_t size) {
  _mvMemoryDataSource source;
  source.initializeMemSource(data, static_cast<unsigned>(size));
  ClsTar tar;
  tar.put_SuppressOutput(true);
  tar.UntarGz(source);
}

// The decoder alone: an archive's own checks would stop most of what it makes of nonsense.
void lzw(const uint8_t* data, size_t size) {
  _mvMemoryDataSource source;
  source.initializeMemSource(data, static_cast<unsigned>(size));
  BoundedOutput out;
  _mvIoParams io;
  LogNull log;
  MorvaneLzw::decompressLzwSource64(source, out, true, io, log);
}

// The calls that need no target directory; each reads the same bytes from their beginning.
void archive(const uint8_t* data, size_t size) {
  ClsTar tar;
  // Both ways of logging are wanted, and an input has no other place to choose by.
  tar.put_VerboseLogging(size % 2 == 1);
  _mvMemoryDataSource source;
  source.initializeMemSource(data, static_cast<unsigned>(size));
  // Nothing is asked of the results: most inputs are no archives.
  tar.VerifyTar(source);
  XString xml;
  source.initializeMemSource(data, static_cast<unsigned>(size));
  tar.ListXml(source, xml);
  DataBuffer bytes, found;
  bytes.borrowData(data, static_cast<unsigned>(size));
  tar.UntarFirstMatchingToMemory(bytes, "*z", found);
  // Sizes are claims, and no member's data can be more than the bytes that are there.
  require(found.getSize() <= size, "a match is never larger than its archive");
}

void pullAgainstPush(const uint8_t* data, size_t size) {
  ClsTar tar;
  tar.put_SuppressOutput(true);
  tar.put_UncommonOptions(kFull);
  _mvMemoryDataSource source;
  source.initializeMemSource(data, static_cast<unsigned>(size));
  Members pulled, pushed;
  const bool pullOk = tar.VerifyTar(source, &pulled);

  // Pieces of 1 to 1,786 bytes: below a block, of a block and over it. The first byte chooses, so that an
  // engine can change it.
  const unsigned piece = size > 0 ? 1 + data[0] * 7u : 1;
  ProgressMonitor monitor(pushed, 0, 0, 0);
  LogNull log;
  tar.BeginStreamingUntar(log);
  bool finished = false, ok = true;
  for (size_t at = 0; ok && at < size; at += piece) {
    const auto n = static_cast<unsigned>(std::min<size_t>(piece, size - at));
    ok = tar.StreamingUntarNext(data + at, n, finished, &monitor, log);
  }
  // Finished in any case, because the member that the pieces end in is only judged there.
  const bool pushOk = tar.FinishStreamingUntar(&monitor, log) && ok;
  if (pulled.ended() || pushed.ended()) return;
  require(pullOk == pushOk, "both engines come to the same verdict");
  require(pulled.list == pushed.list, "both engines see the same members");
}

// By name for the tests, which replay each folder of the corpus through the target of its name.
const std::map<std::string, Target>& targets() {
  static const std::map<std::string, Target> all = {
      {"header", header}, {"pax", pax},         {"gzipHeader", gzipHeader},
      {"lzw", lzw},       {"archive", archive}, {"pullAgainstPush", pullAgainstPush}};
  return all;
}

}  // namespace morvane::fuzz

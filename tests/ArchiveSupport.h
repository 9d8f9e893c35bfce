// What the tests of writing and reading share: small archives as strings, and what is in them.
#pragma once

#include <functional>

#include "TestSupport.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane::testing {

using Lines = std::vector<std::string>;

const std::string kEnd(1024, '\0');  // the two blocks that end an archive

inline std::string member(const std::string& name, const std::string& data = "", char typeFlag = '0') {
  return ArchiveBuilder().add({name, data, typeFlag, typeFlag == '2' ? "target" : ""}).bytes(0);
}
inline std::string directory(const std::string& name) { return member(name, "", '5'); }
inline std::string paxHeader(const std::string& keyword, const std::string& value, char typeFlag = 'x') {
  return member("record", paxRecord(keyword, value), typeFlag);
}
inline std::string longName(const std::string& name, char typeFlag = 'L') {
  return member("record", name + '\0', typeFlag);
}

// The first block with a field replaced and a right checksum.
inline std::string patched(std::string archive, Field field, const std::string& bytes) {
  archive.replace(field.offset, bytes.size(), bytes);
  putChecksum(reinterpret_cast<unsigned char*>(archive.data()));
  return archive;
}

inline int untar(ClsTar& tar, const std::string& archive, ProgressEvent* event = nullptr) {
  DataBuffer bytes;
  bytes.borrowData(reinterpret_cast<const unsigned char*>(archive.data()),
                   static_cast<unsigned>(archive.size()));
  return tar.UntarFromMemory(bytes, event);
}

// "path size" of every member, a directory's path with its "/"; "broken" for what cannot be read.
inline Lines membersOf(const std::string& archive) {
  ClsTar tar;
  RecordingEvent event;
  tar.put_SuppressOutput(true);
  if (untar(tar, archive, &event) < 0) return {"broken"};
  for (std::string& header : event.headers) header = header.substr(2, header.rfind(' ') - 2);
  return event.headers;
}

// The first of the lines that does not stand in the log behind those before it; empty if all do. In the lines
// "%" stands for `place`.
inline std::string missingLine(ClsTar& tar, const Lines& lines, const std::string& place = "") {
  const std::string log = logOf(tar);
  size_t at = 0;
  for (std::string line : lines) {
    if (const size_t mark = line.find('%'); mark != std::string::npos) line.replace(mark, 1, place);
    at = log.find(" " + line + "\n", at);
    if (at == std::string::npos) return line + "\nin\n" + log;
    at += line.size() + 1;
  }
  return "";
}

// Does something when an entry is announced, and leaves the infos about paths out of its record.
struct ActingEvent : RecordingEvent {
  void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) override {
    RecordingEvent::onTarEntry(path, size, isDirectory, skip);
    if (act) act(path);
  }
  void onInfo(const char* name, const char* value) override {
    if (std::string(name) != "pathInTar") RecordingEvent::onInfo(name, value);
  }
  std::function<void(const std::string& path)> act;
};

// A source that cannot seek, with a gap of any size in its midst of which nothing is ever there.
class GapSource : public _mvDataSource {
 public:
  GapSource(const std::string& before, long long gap, const std::string& behind)
      : m_before(before, 700), m_gap(gap), m_behind(behind, 700) {}
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override {
    m_before.readSourcePM(buffer, n, numRead, pm, log);
    if (numRead > 0) return true;
    numRead = static_cast<unsigned>(std::min<long long>(n, m_gap));
    m_gap -= numRead;
    return numRead > 0 || m_behind.readSourcePM(buffer, n, numRead, pm, log);
  }

 private:
  TricklingSource m_before;
  long long m_gap;
  TricklingSource m_behind;
};

struct CountingOutput : _mvOutput {
  bool _writeBytes(const char*, unsigned int n, _mvIoParams&, LogBase&) override {
    largest = std::max(largest, n);
    count += n;
    return true;
  }
  long long count = 0;
  unsigned largest = 0;
};

}  // namespace morvane::testing

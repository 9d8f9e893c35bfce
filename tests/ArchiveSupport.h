// What the tests of writing and reading share: small archives as strings, and what is in them.
#pragma once

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

inline std::string written(ClsTar& tar, ProgressEvent* event = nullptr, bool expected = true) {
  LimitedOutput out;
  EXPECT_EQ(expected, tar.WriteTar(out, event)) << logOf(tar);
  return out.bytes;
}

inline std::string textOf(const DataBuffer& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.getData2()), buffer.getSize());
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

// Leaves the infos about paths out of its record.
struct ActingEvent : RecordingEvent {
  void onInfo(const char* name, const char* value) override {
    if (std::string(name) != "pathInTar") RecordingEvent::onInfo(name, value);
  }
};

}  // namespace morvane::testing

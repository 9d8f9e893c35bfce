// One member's way into the archive, but for its data: the records that its format needs in front of the
// header block, and the block.
//
// Errors and order are those of writeTarHeaderToOutput and the record operations of ClsTar, which lead here.
#pragma once

#include "tar/format/FormatLimits.h"
#include "tar/format/HeaderBlock.h"
#include "tar/format/Member.h"
#include "tar/write/WriteRun.h"

namespace morvane {

// One for a write; it keeps nothing of a member. It writes where the run's output leads, and fails without
// one. Reasons of failures are in the log. One thread; its calls may throw std::bad_alloc.
class MemberWriter {
 public:
  explicit MemberWriter(WriteRun& run) : m_run(run) {}

  // How the archive's format holds the member, or why it cannot. It must not outlive the member.
  MemberEncoding encode(const Member& member) const;
  // Records and header, as `encode` has them. What the format cannot hold is an error, and nothing is
  // written.
  [[nodiscard]] bool writeHeader(const Member& member, const MemberEncoding& encoding);

  // A record alone: GNU's for a long path / the pax records of the member. `records` is their text. The
  // header that follows is the caller's to write.
  [[nodiscard]] bool writeLongName(const Member& member);
  [[nodiscard]] bool writePax(const Member& member, const std::string& records);
  // The one pax record that there is by default: the path's.
  [[nodiscard]] bool writePaxPath(const Member& member);

 private:
  // A header block with GNU's map in it, and the blocks that the map goes on in.
  bool putWithMap(const SparseMap& map, unsigned char* block);
  // Records that the format needs, in the order in which readers expect them.
  bool writeRecords(const Member& member, const MemberEncoding& encoding);
  bool writeLongText(const Member& member, char typeFlag, const std::string& text);
  // A record's header block, its data, and zeros up to the next block.
  bool putRecord(const Member& record, std::string_view name, TarMagic magic, const std::string& data);

  // Borrowed; its settings are those of the current member.
  WriteRun& m_run;
  Member m_record;  // the header of a record, whose texts are used again
};

}  // namespace morvane

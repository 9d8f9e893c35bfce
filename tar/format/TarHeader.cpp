// One header block parsed. It decides what a block is at all: the end mark, a header, or neither.
//
// Refusals are few, because an archive that other tars read must be read too: the checksum, without which
// nothing in the block means anything, and the size, without which the next header cannot be found. Every
// other field has a value that does no harm.
#include "tar/format/TarHeader.h"

#include <cstring>
#include <new>

#include "runtime/fs/FileMetadata.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogBase.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

// The first byte is zero, and each byte equals the one before. memcmp compares many of them at a time, and
// this is asked of every block.
bool isZeroBlock(const unsigned char* block) {
  return block[0] == 0 && std::memcmp(block, block + 1, kBlockSize - 1) == 0;
}

// Up to the NUL, or all of the field where there is none.
unsigned textLength(const unsigned char* block, Field field) {
  return static_cast<unsigned>(strnlen(reinterpret_cast<const char*>(block + field.offset), field.width));
}

// Clears without giving memory back: headers are parsed by the million into the same record.
void takeText(const unsigned char* block, Field field, StringBuffer& out) {
  out.weakClear();
  out.appendN(reinterpret_cast<const char*>(block + field.offset), textLength(block, field));
}

void takeOwnedText(const unsigned char* block, Field field, std::unique_ptr<StringBuffer>& out) {
  if (!out) out = std::make_unique<StringBuffer>();
  takeText(block, field, *out);
}

// The prefix has 155 bytes, except that our own writer lets one run on into the tail, slash included. Such a
// one ends in a slash in the tail. Bytes there that do not end in one are somebody else's use of the tail,
// and no part of the path.
unsigned prefixLength(const unsigned char* block) {
  const unsigned length = textLength(block, kPrefixField);
  if (length < kPrefixField.width) return length;
  const unsigned longer = textLength(block, {kPrefixField.offset, kLongestPrefix});
  return block[kPrefixField.offset + longer - 1] == '/' ? longer : length;
}

// GNU tar's magic has a blank in the NUL's place, and what lies behind it is no prefix.
bool isUstarBlock(const unsigned char* block) {
  constexpr unsigned kMagicAlone = 6;  // "ustar" and NUL; versions differ and do not matter
  return std::memcmp(block + kMagicField.offset, kUstarMagic, kMagicAlone) == 0;
}

// Directories before ustar had no type flag of their own: an empty file whose name ends in a slash. A name
// that fills its field may have been cut there and proves nothing.
bool isDirectoryBlock(const unsigned char* block, char typeFlag, long long size) {
  if (typeFlag == kTypeDirectory) return true;
  if ((typeFlag != kTypeRegular && typeFlag != kTypeOldRegular) || size != 0) return false;
  const unsigned length = textLength(block, kNameField);
  return length > 0 && length < kNameField.width && block[kNameField.offset + length - 1] == '/';
}

// One error line; the caller shows the block if it wants to.
bool invalid(LogBase& log, const char* why) {
  log.LogError(why);
  return false;
}

}  // namespace

// Keeps the memory of the texts: a reader clears the same record for every header.
void TarHeader::clear() {
  for (StringBuffer* text : {&m_name, &m_prefix, &m_path, &m_linkName}) text->weakClear();
  m_paxFieldsSet = m_mode = m_uid = m_gid = m_mtime = m_atime = m_ctime = 0;
  m_size = m_exactUid = m_exactGid = 0;
  m_typeFlag = '\0';
  m_isDirectory = m_sparseMapGoesOn = false;
  for (auto* owned : {&m_linkPath, &m_userName, &m_groupName}) owned->reset();
  for (TarTime* time : {&m_exactMtime, &m_exactAtime, &m_exactCtime}) *time = TarTime();
}

// The end mark is told by its first block; whether a second one follows is left to whoever cares. The
// checksum comes before everything else, so that messages about fields are about headers. Nothing of the
// record is changed before the last refusal.
bool TarHeader::parseFromMemory(const unsigned char* block, bool& endOfArchive, LogBase& log) {
  if (isZeroBlock(block)) {
    clear();
    endOfArchive = true;
    return true;
  }
  if (!hasValidChecksum(block)) return invalid(log, "The TAR header's checksum is wrong.");
  const NumberField size = parseNumber(block, kSizeField);
  switch (size.state) {
    case NumberField::State::Ok:
      break;
    case NumberField::State::Negative:
      return invalid(log, "The TAR header's size is negative.");
    case NumberField::State::TooLarge:
      return invalid(log, "The TAR header's size is too large.");
    // A number that stops early would find the wrong place for the next header, and everything from there on
    // would be noise.
    case NumberField::State::Foreign:
      return invalid(log, "The TAR header's size is not a number.");
  }
  m_size = static_cast<long long>(size.value);
  m_typeFlag = static_cast<char>(block[kTypeFlagField.offset]);
  m_isDirectory = isDirectoryBlock(block, m_typeFlag, m_size);
  m_sparseMapGoesOn = m_typeFlag == kTypeSparse && block[kSparseGoesOnInHeader] != 0;
  takeNumbers(block);
  takeNames(block);
  return true;
}

// What is no number counts as far as it can be read; a wrong mode or time is no reason to lose a file.
void TarHeader::takeNumbers(const unsigned char* block) {
  m_mode = parseNumber(block, kModeField).as32();
  const NumberField uid = parseNumber(block, kUidField), gid = parseNumber(block, kGidField);
  m_uid = uid.as32();
  m_gid = gid.as32();
  m_exactUid = uid.orNone(FileMetadata::kNoId);
  m_exactGid = gid.orNone(FileMetadata::kNoId);
  const NumberField mtime = parseNumber(block, kMtimeField);
  m_mtime = mtime.as32();
  m_exactMtime = {static_cast<long long>(mtime.value), 0, true};
  // A block carries none of these.
  m_paxFieldsSet = 0;
  m_atime = m_ctime = 0;
  m_exactAtime = m_exactCtime = TarTime();
}

// User and group name are made anew where merging has moved them away.
void TarHeader::takeNames(const unsigned char* block) {
  takeText(block, kNameField, m_name);
  takeText(block, kLinkNameField, m_linkName);
  takeOwnedText(block, kUserNameField, m_userName);
  takeOwnedText(block, kGroupNameField, m_groupName);
  // It was another header's record's.
  m_linkPath.reset();
  m_prefix.weakClear();
  m_path.weakClear();
  if (isUstarBlock(block)) {
    const unsigned length = prefixLength(block);
    m_prefix.appendN(reinterpret_cast<const char*>(block + kPrefixField.offset), length);
  }
  if (!m_prefix.isEmpty()) {
    m_path = m_prefix.str();
    // A prefix of ours carries the joining slash itself.
    if (m_prefix.str().back() != '/') m_path.appendChar('/');
  }
  m_path.appendN(m_name.getString(), m_name.getSize());
}

// The two failures are told apart, because the first is what an archive looks like whose writer was stopped
// between members. The missing bytes are zeroed for those who show the block.
bool TarHeader::readBlock(_mvDataSource& source, unsigned char* block, LogBase& log, ProgressMonitor* pm) {
  unsigned numRead = 0;
  // The source has logged its failure; only an end is told here.
  if (!source.readFully(reinterpret_cast<char*>(block), kBlockSize, numRead, pm, log)) return false;
  if (numRead == kBlockSize) return true;
  std::memset(block + numRead, 0, kBlockSize - numRead);
  log.LogError(numRead == 0 ? "The archive ends without an end-of-archive mark."
                            : "The archive ends inside a header.");
  log.LogDataLong("bytesRead", numRead);
  return false;
}

// The caller's block is filled even when parsing fails, for it is then shown in the log.
bool TarHeader::parseFromDataSource(_mvDataSource& source, unsigned char* rawBlock, bool& endOfArchive,
                                    LogBase& log, ProgressMonitor* pm) {
  unsigned char local[kBlockSize];
  unsigned char* const block = rawBlock ? rawBlock : local;
  return readBlock(source, block, log, pm) && parseFromMemory(block, endOfArchive, log);
}

// A short text lies inside its std::string, where copying costs less than exchanging two and leaves the
// header's as it was; a longer one gives its memory away instead.
void TarHeader::exchangeTexts(std::string& path, std::string& linkPath, std::string& userName,
                              std::string& groupName) {
  const auto exchange = [](StringBuffer* text, std::string& with) {
    // What std::string keeps in itself.
    constexpr unsigned kCopiedAsFast = 15;
    // Merging has moved the name away.
    if (!text) {
      with.clear();
    } else if (text->getSize() <= kCopiedAsFast) {
      with = text->str();
    } else {
      text->swap(with);
    }
  };
  exchange(&m_path, path);
  exchange(m_linkPath ? m_linkPath.get() : &m_linkName, linkPath);
  exchange(m_userName.get(), userName);
  exchange(m_groupName.get(), groupName);
}

void TarHeader::setWholePath(const char* path) {
  setWholePath(path, static_cast<unsigned>(std::strlen(path)));
}

// Name and prefix are no part of it any more.
void TarHeader::setWholePath(const char* bytes, unsigned n) {
  m_path.weakClear();
  m_path.appendN(bytes, n);
  m_name.weakClear();
  m_prefix.clear();
}

}  // namespace morvane

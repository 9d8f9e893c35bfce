// Access lists between their two forms. The text comes from an archive and may be anything: what is not
// understood makes no list at all, because half a list would give rights that nobody granted.
#include "runtime/fs/AccessList.h"

#include <endian.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <vector>

#include "runtime/fs/FileMetadata.h"
#include "runtime/fs/UserDatabase.h"

namespace morvane {

namespace {

// The attribute: a version, then entries of eight bytes, all little-endian (Linux, posix_acl_xattr.h). The
// kernel refuses an attribute of any other version.
constexpr uint32_t kVersion = 2;
constexpr size_t kVersionSize = 4, kEntrySize = 8;

// The four kinds of entries and their tags (ACL_USER_OBJ and the others of the system's header). A mask and
// the others have no name, so that 0 stands there for a tag that no entry may have.
struct Kind {
  const char* name;
  uint16_t ownTag, namedTag;  // of "user::" and of "user:lisa:"
};
constexpr Kind kKinds[] = {
    {"user", 0x01, 0x02}, {"group", 0x04, 0x08}, {"mask", 0x10, 0}, {"other", 0x20, 0}};

// One entry as the attribute has it; the permissions are 4, 2 and 1 as in a mode. Entries without a name
// carry the id that is none.
struct Entry {
  uint16_t tag = 0, permissions = 0;
  uint32_t id = FileMetadata::kNoId;
};

// Takes the next piece off the front, with the separator behind it. Where there is none left, the piece is
// all of it, and what is asked for then is empty: missing fields need no check.
std::string_view cut(std::string_view& rest, const char* separators) {
  const size_t end = std::min(rest.find_first_of(separators), rest.size());
  const std::string_view piece = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return piece;
}

// Digits and nothing else. The number that means "no id" to the system is refused, because an entry with it
// would be another entry than the text says.
std::optional<uint32_t> numberOf(std::string_view text) {
  uint32_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber =
      result.ec == std::errc() && result.ptr == text.data() + text.size() && number != FileMetadata::kNoId;
  return isNumber ? std::optional<uint32_t>(number) : std::nullopt;
}

// Whose entry it is. A name that this system does not know falls back to the number that was archived with
// it, and then to a name that is itself a number, as is written for an id without a name.
std::optional<uint32_t> idOf(std::string_view name, std::string_view id, bool isUser, bool byId,
                             UserDatabase& users) {
  const std::optional<uint32_t> number = numberOf(id);
  if (byId && number) return number;
  const std::string text(name);
  const std::optional<unsigned> known = isUser ? users.userId(text) : users.groupId(text);
  if (known) return *known;
  return number ? number : numberOf(name);
}

// Kinds are spelled out and lower case, as every tar writes them. A letter counts in its own place only;
// anything else there means that the right is not given. What stands behind the third letter is passed over.
std::optional<Entry> parseEntry(std::string_view text, bool byId, UserDatabase& users) {
  const std::string_view kindName = cut(text, ":"), name = cut(text, ":"), permissions = cut(text, ":"),
                         id = cut(text, ":");
  const auto* const kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                        [&](const Kind& each) { return kindName == each.name; });
  if (kind == std::end(kKinds) || permissions.size() < 3) return std::nullopt;
  Entry entry;
  constexpr std::string_view kLetters = "rwx";
  for (unsigned i = 0; i < 3; ++i) {
    if (permissions[i] == kLetters[i]) entry.permissions |= static_cast<uint16_t>(4 >> i);
  }
  entry.tag = name.empty() ? kind->ownTag : kind->namedTag;
  if (entry.tag == 0) return std::nullopt;
  // An entry that cannot be given to anybody spoils the list. Left out, it would change what the mask and the
  // entries beside it grant.
  if (!name.empty()) {
    const std::optional<uint32_t> known = idOf(name, id, kind == kKinds, byId, users);
    if (!known) return std::nullopt;
    entry.id = *known;
  }
  return entry;
}

// The caller has brought it into the order of the attribute's bytes.
template <class Number>
void append(Number littleEndian, std::string& bytes) {
  bytes.append(reinterpret_cast<const char*>(&littleEndian), sizeof littleEndian);
}

}  // namespace

// The attribute has no alignment, so each field is copied out. A name that may not be known where the archive
// is read always has its number behind it, and an id that has no name stands there as its own.
std::optional<std::string> accessListText(std::string_view bytes, UserDatabase& users) {
  uint32_t version = 0;
  if (bytes.size() < kVersionSize || (bytes.size() - kVersionSize) % kEntrySize != 0) return std::nullopt;
  std::memcpy(&version, bytes.data(), sizeof version);
  if (le32toh(version) != kVersion) return std::nullopt;
  std::string text;
  for (size_t at = kVersionSize; at < bytes.size(); at += kEntrySize) {
    uint16_t tag = 0, permissions = 0;
    uint32_t id = 0;
    std::memcpy(&tag, bytes.data() + at, sizeof tag);
    std::memcpy(&permissions, bytes.data() + at + 2, sizeof permissions);
    std::memcpy(&id, bytes.data() + at + 4, sizeof id);
    tag = le16toh(tag);
    permissions = le16toh(permissions);
    id = le32toh(id);
    const auto* const kind = std::find_if(std::begin(kKinds), std::end(kKinds), [&](const Kind& each) {
      return tag == each.ownTag || (tag == each.namedTag && tag != 0);
    });
    // A tag that is not known belongs to a newer kernel, and a list without its entry would say something
    // else.
    if (kind == std::end(kKinds)) return std::nullopt;
    const bool isNamed = tag == kind->namedTag;
    if (!text.empty()) text += ',';
    text.append(kind->name).append(1, ':');
    if (isNamed) {
      const std::string& name = kind == kKinds ? users.userName(id) : users.groupName(id);
      text += name.empty() ? std::to_string(id) : name;
    }
    text += ':';
    for (unsigned i = 0; i < 3; ++i) text += permissions & 4 >> i ? "rwx"[i] : '-';
    if (isNamed) text += ":" + std::to_string(id);
  }
  return text;
}

// Both separators are taken, because archives have one and tools that print lists the other; so are comments
// ("#effective:rw-") and the blanks in front of an entry. A text without entries gives a list of none.
std::optional<std::string> accessListBytes(std::string_view text, bool byId, UserDatabase& users) {
  // No limit is needed: an entry takes some bytes of text, so the caller's limit on the text bounds the
  // memory.
  std::vector<Entry> entries;
  while (!text.empty()) {
    std::string_view piece = cut(text, ",\n");
    piece = piece.substr(0, piece.find('#'));
    piece.remove_prefix(std::min(piece.find_first_not_of(" \t"), piece.size()));
    if (piece.empty()) continue;
    const std::optional<Entry> entry = parseEntry(piece, byId, users);
    if (!entry) return std::nullopt;
    entries.push_back(*entry);
  }
  // The kernel refuses entries that are not in the order of their tags. Within a tag they go by number, as
  // other tools write them, so that equal lists are equal bytes.
  std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return a.tag != b.tag ? a.tag < b.tag : a.id < b.id;
  });
  std::string bytes;
  append(htole32(kVersion), bytes);
  for (const Entry& entry : entries) {
    append(htole16(entry.tag), bytes);
    append(htole16(entry.permissions), bytes);
    append(htole32(entry.id), bytes);
  }
  return bytes;
}

// A list that makes sense has the entries of owner, group and others. So any further one is a named entry, or
// the mask that comes with such.
bool isExtendedAccessList(std::string_view bytes) { return bytes.size() > kVersionSize + 3 * kEntrySize; }

// Found by its front, because the list as a whole may make no sense. Its mask takes off nothing here: whoever
// asks has a mode whose group bits are the mask.
unsigned owningGroupBits(std::string_view text) {
  constexpr std::string_view kOwnGroup = "group::", kLetters = "rwx";
  while (!text.empty()) {
    std::string_view piece = cut(text, ",\n");
    piece.remove_prefix(std::min(piece.find_first_not_of(" \t"), piece.size()));
    if (piece.size() < kOwnGroup.size() + 3 || piece.compare(0, kOwnGroup.size(), kOwnGroup) != 0) continue;
    unsigned bits = 0;
    for (unsigned i = 0; i < 3; ++i) bits |= piece[kOwnGroup.size() + i] == kLetters[i] ? 040u >> i : 0u;
    return bits;
  }
  return 0;
}

}  // namespace morvane

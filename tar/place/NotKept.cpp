// Thousands of members may fail for one reason (nobody but the superuser changes owners): the first of a kind
// is told with its reason, the others are counted.
#include "tar/place/NotKept.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "runtime/io/Io.h"

namespace morvane {

namespace {

// In the order of Kind. The events' names are part of the interface: applications compare them.
struct Row {
  const char *message, *event, *countEvent;
  bool isMissing = false;  // the member is not made
};
constexpr Row kRows[] = {
    {"The member's owner is not kept.", "ownerNotKept", "ownersNotKept"},
    {"The member's mode is not kept.", "modeNotKept", "modesNotKept"},
    {"The member's times are not kept.", "timesNotKept", "allTimesNotKept"},
    {"Attributes of the member are not kept.", "attributesNotKept", "allAttributesNotKept"},
    {"The member is a copy: a link cannot be made here.", "linkNotKept", "linksNotKept"},
    {"The device is not made.", "deviceNotKept", "devicesNotKept", true},
};
// A kind without a row would be told as another.
static_assert(std::size(kRows) == static_cast<size_t>(NotKept::Kind::Count));

}  // namespace

// The cause is there while the event is told, so that a callback may ask for it, and gone behind it. Of
// members that are not made at all each is told to the event, because an application has to know which are
// missing; the log has the first.
void NotKept::note(Kind kind, const XString& entryPath, int error, const Io& io) {
  const auto index = static_cast<size_t>(kind);
  if (++m_counts[index] > 1) {
    if (kRows[index].isMissing) io.inform(kRows[index].event, entryPath.getUtf8());
    return;
  }
  const char* const reason = error != 0 ? std::strerror(error) : "";
  io.log.LogNotice(kRows[index].message);
  io.log.LogDataX("entryPath", entryPath);
  if (error != 0) io.log.LogData("reason", reason);
  io.log.noteCause(kRows[index].message, entryPath.getUtf8(), reason);
  io.inform(kRows[index].event, entryPath.getUtf8());
  io.log.forgetCause();  // the run goes on
}

// One was told already, with its path; a count says more only from two on. It is an info line: the first
// notice has said that something is not kept.
void NotKept::tellCounts(const Io& io) {
  for (size_t i = 0; i < m_counts.size(); ++i) {
    if (m_counts[i] < 2) continue;
    io.log.LogInfo(kRows[i].message);
    io.log.LogDataInt64("members", m_counts[i]);
    io.inform(kRows[i].countEvent, std::to_string(m_counts[i]).c_str());
  }
}

bool NotKept::any() const {
  return std::any_of(m_counts.begin(), m_counts.end(), [](long long count) { return count > 0; });
}

}  // namespace morvane

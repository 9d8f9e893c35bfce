// POSIX chmod's language, over numbers alone.
#include "cli/ModeChange.h"

#include <sys/stat.h>

#include <algorithm>

namespace mvtar {

namespace {

// The bits of each class, with the one of the upper three that belongs to it: set-user-id, set-group-id, and
// for others the sticky bit.
constexpr unsigned kAll = 07777, kUser = 04700, kGroup = 02070, kOther = 01007;
constexpr unsigned kSetIds = 06000, kSticky = 01000;

// Null: none of "ugo". The mask of the class's three bits alone.
unsigned digitOf(char letter) {
  return letter == 'u' ? 0700u : letter == 'g' ? 0070u : letter == 'o' ? 0007u : 0u;
}

}  // namespace

std::optional<ModeChange> ModeChange::parse(const std::string& text) {
  ModeChange change;
  if (text.empty()) return std::nullopt;
  if (text.find_first_not_of("01234567") == std::string::npos) {
    // More than four digits that count are over 7777; zeros in front are allowed, in any number.
    if (text.find_first_not_of('0') != std::string::npos && text.size() - text.find_first_not_of('0') > 4) {
      return std::nullopt;
    }
    // Five digits mean the set-id bits of directories, too.
    Step step;
    step.who = kAll;
    step.bits = static_cast<unsigned>(std::stoul(text, nullptr, 8));
    step.ofDirectories = text.size() > 4 ? kSetIds : step.bits;
    change.m_steps.push_back(step);
    return change;
  }
  // There is no way to ask for the umask without setting it; nothing else runs meanwhile.
  change.m_umask = umask(0);
  umask(static_cast<mode_t>(change.m_umask));
  // "<=", so that an empty clause at the end ("u+w,") is met and refused.
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find(',', start), text.size());
    if (!parseClause(text.substr(start, end - start), change.m_steps)) return std::nullopt;
    start = end + 1;
  }
  return change;
}

// A clause may have several actions behind one list of classes ("u+r-w"), each of which is a step.
bool ModeChange::parseClause(const std::string& clause, std::vector<Step>& steps) {
  size_t at = 0;
  unsigned who = 0;
  for (; at < clause.size() && clause.find_first_of("ugoa", at) == at; ++at) {
    who |= clause[at] == 'u' ? kUser : clause[at] == 'g' ? kGroup : clause[at] == 'o' ? kOther : kAll;
  }
  // Classes alone, or nothing, change nothing and are a mistake.
  if (at == clause.size()) return false;
  while (at < clause.size()) {
    Step step;
    step.who = who;
    step.action = clause[at++];
    if (step.action != '+' && step.action != '-' && step.action != '=') return false;
    // "g=u" copies; letters of classes and of permissions do not stand together behind one action.
    if (at < clause.size() && digitOf(clause[at]) != 0) {
      step.from = digitOf(clause[at++]);
    } else {
      // No letter at all is allowed: "o=" takes everything away, and "u+" changes nothing.
      for (; at < clause.size() && clause.find_first_of("rwxXst", at) == at; ++at) {
        switch (clause[at]) {
          case 'r':
            step.bits |= 0444;
            break;
          case 'w':
            step.bits |= 0222;
            break;
          case 'x':
            step.bits |= 0111;
            break;
          // Whether it means anything depends on the mode that it is applied to.
          case 'X':
            step.runsIfRun = true;
            break;
          case 's':
            step.bits |= kSetIds;
            break;
          default:
            step.bits |= kSticky;
            break;
        }
      }
    }
    // Of a directory's set-id bits those are changed that the action spells out, for the classes that it is
    // about.
    step.ofDirectories = step.bits & (who == 0 ? kAll : who);
    steps.push_back(step);
  }
  return true;
}

// As GNU chmod has it. "=" where nobody was named clears everything, and the umask is taken off what is set.
// `stays` are the bits that this step leaves alone in any case; `preserved` are those that "=" keeps.
unsigned ModeChange::apply(unsigned mode, bool isDirectory) const {
  for (const Step& step : m_steps) {
    unsigned bits = step.bits;
    if (step.runsIfRun && (isDirectory || (mode & 0111) != 0)) bits |= 0111;
    // A mask of three bits, divided by 7, is its lowest bit; dividing by that brings the digit to the right
    // end, and 0111 repeats it for all three classes.
    if (step.from != 0) bits = (mode & step.from) / (step.from / 7) * 0111;
    const unsigned stays = isDirectory ? kSetIds & ~step.ofDirectories : 0;
    bits &= (step.who != 0 ? step.who : ~m_umask) & ~stays;
    const unsigned preserved = (step.who != 0 ? ~step.who : 0) | stays;
    mode = step.action == '+' ? mode | bits : step.action == '-' ? mode & ~bits : (mode & preserved) | bits;
  }
  return mode & kAll;
}

}  // namespace mvtar

// The C library matches; cutting expressions apart and putting replacements together is what is done here.
#include "cli/NameTransform.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace mvtar {

namespace {

// The whole match and "\1" to "\9".
constexpr size_t kGroups = 10;
// Behind a back slash, in what is put in place of a match.
constexpr std::string_view kEscapes = "abfnrtv", kMeant = "\a\b\f\n\r\t\v";

// Up to the next `delimiter` that is not quoted by a back slash. False when there is none. `at` is left
// behind the delimiter. Back slashes stay: the expression and the replacement each have a meaning for them,
// also in front of the delimiter, so that "s|a\|b|c|" knows alternatives, as in GNU tar.
bool takePart(const std::string& text, char delimiter, size_t& at, std::string& part) {
  for (; at < text.size(); ++at) {
    if (text[at] == delimiter) {
      ++at;
      return true;
    }
    if (text[at] == '\\' && at + 1 < text.size()) part += text[at++];
    part += text[at];
  }
  return false;
}

// What "\L" and its like make of the text that follows.
class CaseChanger {
 public:
  // Whether the letter is one of them.
  bool take(char letter) {
    if (letter == 'L' || letter == 'U' || letter == 'E') {
      m_all = letter == 'E' ? '\0' : letter;
      return true;
    }
    if (letter != 'l' && letter != 'u') return false;
    m_next = letter;
    return true;
  }
  // "\l" and "\u" are for one character and go before "\L" and "\U", so that "\u\L" makes a capital and small
  // letters behind it. Bytes beyond ASCII are parts of UTF-8 characters and stay, because changing them one
  // by one would make other characters of them.
  void append(std::string_view text, std::string& result) {
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      const char mode = m_next ? m_next : m_all;
      m_next = '\0';
      const int changed = byte > 0x7F                  ? byte
                          : mode == 'l' || mode == 'L' ? std::tolower(byte)
                          : mode == 'u' || mode == 'U' ? std::toupper(byte)
                                                       : byte;
      result += static_cast<char>(changed);
    }
  }

 private:
  char m_all = '\0', m_next = '\0';
};

}  // namespace

// The C library's part of it, then the structure itself, which `addOne` made.
void NameTransform::FreeRegex::operator()(regex_t* regex) const {
  regfree(regex);
  delete regex;
}

// Options that are given several times add their expressions, which are applied in the order in which they
// were given.
bool NameTransform::add(const std::string& expressions, std::string& error) {
  for (size_t at = 0; at < expressions.size();) {
    if (!addOne(expressions, at, error)) return false;
  }
  if (m_steps.empty()) error = "an empty expression";
  return !m_steps.empty();
}

// What getopt gave, up to the ";" behind an expression or to the end.
bool NameTransform::addOne(const std::string& expressions, size_t& at, std::string& error) {
  const auto wrong = [&](const std::string& what) {
    error = what + " in '" + expressions + "'";
    return false;
  };
  // Between expressions, and behind the last.
  if (expressions[at] == ';' || expressions[at] == ' ') return ++at, true;
  if (expressions[at] != 's' || at + 1 >= expressions.size()) return wrong("no 's/RE/TO/'");
  const char delimiter = expressions[at + 1];
  at += 2;
  std::string pattern;
  Step step;
  if (!takePart(expressions, delimiter, at, pattern) || !takePart(expressions, delimiter, at, step.to)) {
    return wrong("a part is missing");
  }
  // Flags end at the next ";" or with the text; unlike the parts in front of them they cannot be quoted.
  int flags = 0;
  for (; at < expressions.size() && expressions[at] != ';'; ++at) {
    const char flag = expressions[at];
    if (flag >= '0' && flag <= '9') {
      // No name has as many matches as would make this overflow.
      const bool goesOn = at > 0 && expressions[at - 1] >= '0' && expressions[at - 1] <= '9';
      step.first = std::min(100000u, (goesOn ? step.first * 10 : 0) + static_cast<unsigned>(flag - '0'));
    } else if (!takeFlag(flag, step, flags)) {
      return wrong(std::string("unknown flag '") + flag + "'");
    }
  }
  // The flag "0" means what no number means.
  step.first = std::max(step.first, 1u);
  auto compiled = std::make_unique<regex_t>();
  // What failed to compile holds nothing that regfree would have to give back.
  if (const int code = regcomp(compiled.get(), pattern.c_str(), flags); code != 0) {
    char text[256];
    regerror(code, compiled.get(), text, sizeof text);
    return wrong(text);
  }
  // From here on there is something to be freed.
  step.regex.reset(compiled.release());
  // Refused here, since a group that the expression does not have would be replaced by nothing in every name.
  // Both characters behind a back slash are passed over at once, so that "\\1" is no group.
  for (size_t i = 0; i + 1 < step.to.size(); ++i) {
    if (step.to[i] != '\\') continue;
    const char c = step.to[++i];
    if (c >= '1' && c <= '9' && static_cast<size_t>(c - '0') > step.regex->re_nsub)
      return wrong("there is no group " + std::string(1, c));
  }
  m_steps.push_back(std::move(step));
  return true;
}

// The letters of both lists stand in the order of Of, so that a letter's place is the index into Step::of.
bool NameTransform::takeFlag(char flag, Step& step, int& regexFlags) {
  constexpr std::string_view kLeaveOut = "RSH", kTakeIn = "rsh";
  if (flag == 'g') return step.all = true;
  if (flag == 'i' || flag == 'I') return (regexFlags |= REG_ICASE) != 0;
  if (flag == 'x') return (regexFlags |= REG_EXTENDED) != 0;
  if (const size_t kind = kLeaveOut.find(flag); kind != std::string_view::npos) {
    step.of[kind] = false;
    return true;
  }
  const size_t kind = kTakeIn.find(flag);
  if (kind != std::string_view::npos) step.of[kind] = true;
  return kind != std::string_view::npos;
}

bool NameTransform::concerns(Of what) const {
  return std::any_of(m_steps.begin(), m_steps.end(),
                     [what](const Step& step) { return step.of[static_cast<size_t>(what)]; });
}

// A text that is over the bound is handed on as it is; writing commands refuse such a name.
std::string NameTransform::apply(std::string text, Of what) const {
  for (const Step& step : m_steps) {
    if (step.of[static_cast<size_t>(what)] && text.size() <= kLongest) text = substitute(step, text);
  }
  return text;
}

// Match by match, from the left. An empty match is replaced too, but not where the match before it ended, as
// sed has it: "s/x*/-/g" makes "-b-" of "xb", and not "--b-". `at` is behind what has been copied or
// replaced. The numbers that regexec gives count from there.
std::string NameTransform::substitute(const Step& step, const std::string& text) {
  std::string result;
  const char* at = text.c_str();
  const char* const end = at + text.size();
  // Whether the match before ended here and was not empty.
  bool behindMatch = false;
  for (unsigned count = 0; at <= end;) {
    regmatch_t groups[kGroups];
    // "^" is the beginning of the name alone, not of what is left of it.
    if (regexec(step.regex.get(), at, kGroups, groups, at == text.c_str() ? 0 : REG_NOTBOL) != 0) break;
    if (result.size() > kLongest) break;
    const regoff_t from = groups[0].rm_so, to = groups[0].rm_eo;
    result.append(at, static_cast<size_t>(from));
    const bool isEmpty = from == to;
    // One that does not count is passed over like the text between two matches.
    const bool counts = !(isEmpty && from == 0 && behindMatch);
    const bool replaces = counts && ++count >= step.first && (step.all || count == step.first);
    if (replaces) {
      appendReplacement(step.to, at, groups, result);
    } else {
      result.append(at + from, static_cast<size_t>(to - from));
    }
    at += to;
    behindMatch = !isEmpty;
    // What is behind the one match that was wanted is copied as it is.
    if (replaces && !step.all) break;
    // Nothing was consumed: without a step forward the same place would match for ever. The character that is
    // stepped over is kept. Behind the last one an empty match is tried once more.
    if (isEmpty) {
      if (at < end) result += *at;
      ++at;
    }
  }
  if (at < end) result.append(at, static_cast<size_t>(end - at));
  return result;
}

// A replacement may be long and be made of groups as long as the name; the bound is asked for with each of
// its characters, because one character may stand for a whole group.
void NameTransform::appendReplacement(const std::string& to, const char* subject, const regmatch_t* groups,
                                      std::string& result) {
  // A change of case ends with its replacement, as in sed: it never reaches the text behind the match.
  CaseChanger changer;
  const auto group = [&](size_t number) {
    const regmatch_t& match = groups[number];
    // A group that took no part in the match, as in "\(a\)\|b".
    if (match.rm_so < 0) return std::string_view();
    return std::string_view(subject + match.rm_so, static_cast<size_t>(match.rm_eo - match.rm_so));
  };
  for (size_t i = 0; i < to.size() && result.size() <= kLongest; ++i) {
    if (to[i] == '&') {
      changer.append(group(0), result);
    } else if (to[i] != '\\' || i + 1 == to.size()) {
      changer.append({&to[i], 1}, result);
    } else if (const char c = to[++i]; c >= '0' && c <= '9') {
      changer.append(group(static_cast<size_t>(c - '0')), result);
    } else if (const size_t letter = kEscapes.find(c); letter != std::string_view::npos) {
      changer.append({&kMeant[letter], 1}, result);
    } else if (!changer.take(c)) {
      changer.append({&to[i], 1}, result);
    }
  }
}

}  // namespace mvtar

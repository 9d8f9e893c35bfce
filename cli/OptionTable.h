// Every option of mvtar, one row each: what the parser, the help, the completions and the tests go by.
#pragma once

#include <cstddef>

namespace mvtar {

class OptionValues;

// Where the help lists an option, in this order. It means nothing to the parser. Count is no group, but how
// many there are.
enum class OptionGroup { Mode, Archive, Compression, Which, Names, Kept, Existing, Shown, Component, Count };

// A row. All texts are literals, and valid for ever. A row without a sentence is another name of the row
// before it, and does the same; the parser, the help and the completions rely on it standing there.
struct Option {
  char letter;       // '\0': none
  const char* name;  // the long one; null: none, and then it has a letter and is no other name of a row
  // Whether a value has to stand behind it, may stand behind a "=", or is refused.
  enum class Takes { Nothing, Value, MayTakeValue } takes;
  // What the value is called in the help; null: none. "a|b" are the values there are; "DIR" and words that
  // end in "FILE" or "ARCHIVE" are paths, to be completed as such.
  const char* value;
  OptionGroup group;
  const char* help;  // one sentence without an end; null: the same as the row before
  // Does it. False for a value that makes no sense, which has been told.
  bool (*apply)(OptionValues& values, const char* value);
};

// Without a row of zeros at its end; kOptionCount says how many there are.
extern const Option kOptions[];
extern const size_t kOptionCount;

}  // namespace mvtar

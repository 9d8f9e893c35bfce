// What mvtar says of itself.
#pragma once

#include <optional>
#include <string>

namespace mvtar {

// "": the calls, and the options of every day, on one screen of 80 columns and 24 lines. "all": every option.
// "words": the words of --options, each with a sentence behind at least two blanks.
// "options": the table of options for programs, tab-separated: letter, long name, "=" for a value or "[=]"
// for one that may be left out, what the value is called, the sentence of help. A name without a letter,
// value or sentence has nothing there. Each line ends with a line end. Names, values and tabs of that table,
// and the form of the words, are relied on by the completions. Nothing for a topic that is none of these.
std::optional<std::string> helpText(const std::string& topic);

}  // namespace mvtar

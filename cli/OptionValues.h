// What options do to a CommandLine: values checked and converted as they are met.
#pragma once

#include <string>

#include "cli/CommandLine.h"

namespace mvtar {

// Lives while a command line is parsed. The rows of the option table call a method for each option, in the
// order of the line, and the parser calls `check` behind the last. Methods that take a value return false for
// one that makes no sense, with the error said; parsing ends there. Nothing but the line is changed; files
// are only looked at, where a date may be a file's.
class OptionValues {
 public:
  // Both must outlive it.
  OptionValues(CommandLine& line, std::string& error);

  // For options that only set a switch.
  CommandLine& line() { return m_line; }
  // False, for the caller to return. The first error counts, because parsing ends with it.
  bool wrong(const std::string& what);

  // The same mode twice is no contradiction. Help goes before everything, so that "--help" beside half a
  // command line helps.
  bool setMode(Mode mode);
  bool setHelp(const char* topic);
  // An empty name is refused; "-" is a standard stream.
  bool setArchive(const std::string& path);
  // For the operands and -T lists behind it, and as the target. An empty one is refused.
  bool enterDirectory(const std::string& dir);
  // With the directory that holds at this place.
  void addOperand(const char* path) { m_line.operands.push_back({m_line.targetDir, path}); }
  // A -T; its file is read later, by readNameFiles.
  void addNameFile(const std::string& file);
  // For the -T lists behind it.
  bool setNulNames(bool nul);
  // "gnu", "ustar", "pax", or "posix" for pax.
  bool setFormat(const std::string& format);
  // Of several different ones none is refused before `check`.
  bool setCompression(morvane::Compression compression);
  bool setFilter(const std::string& program);
  // What is read tells its compression itself, so that -Z is remembered only to refuse it with -c.
  void askForCompress() { m_compress = true; }
  // 1 to 22 in decimal digits; `check` knows what the compression has of them.
  bool setLevel(const std::string& level);
  // 0 to 64 in decimal digits.
  bool setThreads(const std::string& count);
  // A name that iconv knows.
  bool setCharset(const std::string& name);
  // Counts from 0 on, in decimal digits.
  bool setMaxCount(const std::string& text);
  bool setStripComponents(const std::string& text);
  // A date or a file's name (Dates.h).
  bool setNewer(const std::string& when, bool byData);
  // Expressions of sed (NameTransform.h), behind those that were given before.
  bool addTransform(const std::string& expressions);
  // Names are looked up in the system's database.
  bool setOwner(const std::string& text);
  bool setGroup(const std::string& text);
  // In chmod's language (ModeChange.h).
  bool setModeChange(const std::string& text);
  // A date or a file's name, as for setNewer.
  bool setTime(const std::string& when);
  // "name" or "none"; either is what is done anyway.
  bool setSort(const std::string& order);
  // Unix seconds; null: from the environment, else 0.
  bool setReproducible(const char* seconds);
  // "always", "auto" or "never".
  bool setProgress(const std::string& when);
  // As if each of the names had been given to --exclude.
  void addVersionControl();
  // Collected; whether they make sense is checked with the words of the command, all at once.
  bool addOptions(const std::string& words);

  // What options mean together, once all are known, since they may come in any order. The first contradiction
  // is told.
  bool check();

 private:
  // The parts of `check`, in its order.
  bool checkArchive();
  bool checkModes();
  bool checkWords();
  // A count from 0 on; `ofWhat` ends the message for anything else.
  bool number(const std::string& text, int& value, const char* ofWhat);

  CommandLine& m_line;
  std::string& m_error;
  // What `check` needs beside the line itself.
  bool m_compress = false;
  bool m_twoCompressions = false;
  // A level that was given has to fit a compression that may be known only later.
  bool m_hasLevel = false;
  int m_level = 0;
  bool m_endsAtNul = false;  // of the -T files that follow
};

}  // namespace mvtar

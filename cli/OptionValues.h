// What options do to a CommandLine: values checked and converted as they are met.
#pragma once

#include <string>

#include "cli/CommandLine.h"

namespace mvtar {

// Lives while a command line is parsed. Methods that take a value return false for one that makes no sense,
// with the error said.
class OptionValues {
 public:
  OptionValues(CommandLine& line, std::string& error);

  CommandLine& line() { return m_line; }
  // False, for the caller to return. The first error counts.
  bool wrong(const std::string& what);

  // The same mode twice is no contradiction. Help goes before everything, so that "--help" beside half a
  // command line helps.
  bool setMode(Mode mode);
  bool setHelp(const char* topic);
  bool setArchive(const std::string& path);
  bool enterDirectory(const std::string& dir);
  void addOperand(const char* path) { m_line.operands.push_back({m_line.targetDir, path}); }
  void addNameFile(const std::string& file);
  bool setNulNames(bool nul);
  bool setFormat(const std::string& format);
  bool setCompression(morvane::Compression compression);
  bool setFilter(const std::string& program);
  // What is read tells its compression itself, so that -Z is remembered only to refuse it with -c.
  void askForCompress() { m_compress = true; }
  bool setLevel(const std::string& level);
  bool setThreads(const std::string& count);
  bool setCharset(const std::string& name);
  bool setMaxCount(const std::string& text);
  bool setStripComponents(const std::string& text);
  bool setNewer(const std::string& when, bool byData);
  bool addTransform(const std::string& expressions);
  bool setOwner(const std::string& text);
  bool setGroup(const std::string& text);
  bool setModeChange(const std::string& text);
  bool setTime(const std::string& when);
  bool setSort(const std::string& order);
  bool setReproducible(const char* seconds);
  bool setProgress(const std::string& when);
  void addVersionControl();
  // Collected; whether they make sense is checked with the words of the command, all at once.
  bool addOptions(const std::string& words);

  // What options mean together, once all are known, since they may come in any order. The first contradiction
  // is told.
  bool check();

 private:
  bool checkArchive();
  bool checkModes();
  bool checkWords();
  bool number(const std::string& text, int& value, const char* ofWhat);

  CommandLine& m_line;
  std::string& m_error;
  bool m_compress = false;
  bool m_twoCompressions = false;
  bool m_hasLevel = false;
  int m_level = 0;
  bool m_endsAtNul = false;  // of the -T files that follow
};

}  // namespace mvtar

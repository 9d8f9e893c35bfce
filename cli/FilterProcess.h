// A program that archives are written or read through (-I).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "cli/Report.h"

namespace mvtar {

// One program, from its start to its end. Started by its words, never by a shell: blanks separate them, and
// quotes and back slashes keep blanks together. One object runs one program at a time. Whoever reads or
// writes the pipe closes its end before `finish`, since the program would wait for it and `finish` for the
// program.
class FilterProcess {
 public:
  FilterProcess() = default;
  // Ends a program that was not waited for.
  ~FilterProcess();
  FilterProcess(const FilterProcess&) = delete;
  FilterProcess& operator=(const FilterProcess&) = delete;

  // Whether PROGRAM is there and may be started; named when not. To be asked before an archive is opened for
  // it.
  static bool canStart(const std::string& program, Report& report);
  // Starts PROGRAM between what is written to the descriptor returned and `to`, which stays the caller's. -1,
  // and named, when that fails.
  int startWriting(const std::string& program, int to, Report& report);
  // Starts "PROGRAM -d" between `from` and the descriptor returned.
  // The descriptor belongs to the caller, here as above, and is closed on exec.
  int startReading(const std::string& program, int from, Report& report);
  bool isRunning() const { return m_pid > 0; }
  // Waits until PROGRAM has read everything that was written to the descriptor. False, and named, when it
  // does not read on: one that ends well all the same has written something else than what it was given.
  bool takesAll(int descriptor, Report& report);
  // What its end has to be: a status of 0; or also that of a pipe which nobody read to its end; or any.
  enum class End { Well, BrokenOff, Any };
  // Waits for its end, once the descriptor is closed. False, and named, when it is another.
  bool finish(End end, Report& report);

 private:
  // What both starts have in common; `other` is the descriptor that the caller gave.
  int start(std::vector<std::string> words, int other, bool writes, Report& report);

  // What messages call it: all of its words, as they were typed.
  std::string m_program;
  // -1 while none is running.
  pid_t m_pid = -1;
};

}  // namespace mvtar

// Bytes put behind a place in a file, which until all of them are there reads as it did before.
//
// The file's end is made of zeros from that place on. New bytes go behind the first of them, and those that
// belong in their place are held back: they are written last, once everything else is on the disk. Whatever
// happens before, a full disk or a killed process, a reader who stops at the zeros sees the old content.
#pragma once

#include <memory>
#include <string>

#include "runtime/fs/OsFile.h"
#include "runtime/io/OutputFile.h"

namespace morvane {

// One job's, on one thread. What was not committed is taken back by the destructor: the file has its old
// length and bytes again.
class AppendOutput : public _mvOutput {
 public:
  // `file` is open for reading and writing and stays so; `path` is what messages call it. From `at` on it has
  // nothing but zeros. `held` of its bytes from there on are left alone until the end. The zeros are an end
  // mark, perhaps with the padding of a last record behind it. Null, with the reason in the log, when the
  // file cannot be written so; it is then as it was. Throws std::bad_alloc.
  static std::unique_ptr<AppendOutput> create(OsFile file, const std::string& path, long long at,
                                              unsigned held, LogBase& log);
  ~AppendOutput() override;

  // The first `held` bytes are kept in memory; the others go to the file at once.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override;
  // Only what is behind the held bytes; the end of the job is commit.
  bool announceOutputFinished(LogBase& log) override { return m_rest->flush(nullptr, log); }

  // Makes what was written the file's new end. False, with the reason in the log, when any of it could not be
  // written; the file is then as it was.
  [[nodiscard]] bool commit(ProgressMonitor* pm, LogBase& log);

  // The file itself, for whoever must know it again.
  const OutputFile& file() const { return *m_rest; }

 private:
  AppendOutput(OsFile file, const std::string& path, long long at, unsigned held, long long oldLength,
               std::unique_ptr<OutputFile> rest);
  // From the last block to the first one.
  bool writeHeld(LogBase& log);
  // Logs errno with the file's path.
  bool fail(LogBase& log);
  // `end`: how far the new bytes may have come.
  void takeBack(long long end);

  OsFile m_file;
  const std::string m_path;
  // Where the held bytes belong, and how many there are at most.
  const long long m_at;
  const unsigned m_held;
  const long long m_oldLength;
  std::string m_front;                 // what was held back so far
  std::unique_ptr<OutputFile> m_rest;  // writes behind it
  bool m_isFrontTouched = false;       // the zeros in its place are no longer sure to be there
  bool m_isCommitted = false;
};

}  // namespace morvane

// Stands between an engine and the file of a sparse member: takes the stored bytes one behind the other and
// puts them where their map says, with holes between. A map that is text at the front of the data is taken
// off first. MemberPlacer::spreading puts it there, and to the engine it is an output like any other.
#pragma once

#include <memory>

#include "runtime/io/_mvOutput.h"
#include "tar/format/SparseMap.h"

namespace morvane {

class OutputFile;

// Of one member. It owns the output in front of which it stands; memory is the map's, whatever the file's
// size. Offsets and sizes are bytes from 0 up to 2^63-1.
class SparseOutput : public _mvOutput {
 public:
  static constexpr char kMapIsWrong[] = "The map of a sparse member makes no sense.";

  // `stored`: bytes that will come, a map's text included. `file` is `out` again where that is a file, else
  // null: `out` then has no positions, and holes become zeros. `mapIsWrong`: whatever comes is refused, since
  // nobody knows where it belongs.
  SparseOutput(std::unique_ptr<_mvOutput> out, OutputFile* file, SparseMap map, long long stored,
               bool mapIsWrong)
      : m_out(std::move(out)),
        m_file(file),
        m_map(std::move(map)),
        m_left(stored),
        m_mapIsWrong(mapIsWrong) {}

  // Pieces may have any size and may end within the map's text.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override;
  // A map or data that make no sense fail the file alone, where that is borne (OutputFile::failAlone).

  // Behind the last byte: the file gets its size. False, with the reason in the log, when bytes are missing.
  // True also where the file has failed alone, which settling it tells.
  [[nodiscard]] bool finish(_mvIoParams& io, LogBase& log);

 private:
  // checkMap: whether the ranges add up to the bytes that are left. passHole: up to an offset of the file.
  // fail: says why, and returns whether the run may go on.
  bool takeMap(const char*& bytes, unsigned& n, LogBase& log);
  bool checkMap(LogBase& log);
  // The reason is logged here.
  bool fail(const char* message, LogBase& log);
  bool passHole(long long upTo, _mvIoParams& io, LogBase& log);

  // The two are one object where it is a file.
  const std::unique_ptr<_mvOutput> m_out;
  OutputFile* const m_file;
  // Complete once a map that is text has been taken off the data.
  SparseMap m_map;
  SparseMapText m_text;
  bool m_mapIsComplete = false;
  // The file's own failure: what still comes is dropped.
  bool m_hasFailed = false;
  // m_left falls to 0, m_at and m_range only grow: ranges come in order, and nothing is written twice.
  long long m_left;           // stored bytes to come
  bool m_mapIsWrong = false;  // from the beginning
  long long m_at = 0;         // in the file
  size_t m_range = 0;         // the current one
  long long m_inRange = 0;    // bytes of it that have come
};

}  // namespace morvane

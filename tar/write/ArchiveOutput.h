// The one way that bytes of an archive leave: straight to the output, or through a compressor and the CRC-32.
#pragma once

#include "runtime/codec/MorvaneBzip2.h"
#include "runtime/codec/MorvaneDeflate.h"
#include "runtime/codec/ZipCRC.h"

namespace morvane {

class LogBase;
class OutputFile;
class ProgressMonitor;
class _mvOutput;

enum class WriteCompression { Plain = 0, Gzip = 1, Bzip2 = 2 };

struct ArchiveOutput {
  _mvOutput* m_output = nullptr;  // not owned; set for the length of a write
  bool m_compressing = false;
  bool m_compressFirst = false;  // the next write starts the compressor
  bool m_compressLast = false;   // the next write is the last
  bool m_computeCrc = false;
  long long m_uncompressedSize = 0;  // archive bytes handed to the compressor
  WriteCompression m_writeCompression = WriteCompression::Plain;
  ZipCRC m_crc;
  MorvaneDeflate m_deflate;
  MorvaneBzip2 m_bzip2;

  // Sets the members for a plain / compressed write.
  void beginPlain() { m_compressing = false; }
  void beginCompressed(WriteCompression compression, int fastDeflate);

  // `checkAbort`: whether the abort checks inside a member's data are on. Without an output a plain write
  // fails without a message.
  [[nodiscard]] bool writeOut_pm(const unsigned char* data, unsigned len, bool checkAbort,
                                 ProgressMonitor* pm, LogBase& log);

  // The file that bytes go to as they are; null when they go anywhere else.
  OutputFile* plainFile() const;

 private:
  bool compress(const unsigned char* data, unsigned len, ProgressMonitor* pm, LogBase& log);
};

}  // namespace morvane

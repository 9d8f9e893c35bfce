#include "tar/write/MemberHeader.h"

#include <algorithm>
#include <string_view>

#include "runtime/fs/OsFile.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/log/LogContextExitor.h"
#include "tar/format/HeaderBlock.h"
#include "tar/format/PaxPathRecord.h"
#include "tar/format/TarBlock.h"
#include "tar/format/UstarSplit.h"

namespace morvane {

namespace {

constexpr std::string_view kLongLinkName = "././@LongLink";

void normalisePath(XString& path, const mvFileInfo& info) {
  path.replaceAllOccurancesUtf8("\\", "/", false);
  if (info.m_isDirectory && !path.endsWithUtf8("/", false)) path.appendUtf8("/");
}

// A header block, then data, then zeros up to the next block.
bool putRecord(WriteRun& run, const HeaderFields& fields, const std::string& data) {
  unsigned char block[kBlockSize];
  encodeHeaderBlock(fields, block);
  const unsigned n = static_cast<unsigned>(data.size());
  return run.put(block, kBlockSize) && run.put(reinterpret_cast<const unsigned char*>(data.data()), n) &&
         run.putZeros(paddingAfter(n));
}

HeaderFields commonFields(const WriteRun& run, const mvFileInfo& info) {
  const WriteSettings& settings = run.settings;
  HeaderFields fields;
  fields.mode = static_cast<unsigned>(info.m_isDirectory ? settings.dirMode : settings.fileMode);
  fields.uid = static_cast<unsigned>(settings.userId);
  fields.gid = static_cast<unsigned>(settings.groupId);
  fields.mtime = info.m_lastModified.toUnixTime32();
  return fields;
}

// Whether what is stored of the prefix fits its own field; see UstarOverflow.
bool overflowsPrefix(const WriteRun& run, const UstarSplit& split) {
  return run.settings.options.ustarOverflowFails && split.prefix.size() > kPrefixField.width;
}

bool splitForHeader(WriteRun& run, const XString& path, HeaderFields& fields) {
  UstarSplit split = splitUstarPath(path.str());
  if (run.settings.options.ustarPlainPrefix && !split.prefix.empty()) {
    split.prefix.remove_suffix(1);
    // Without its slash, that of an absolute path would be gone.
    if (split.prefix.empty()) split.error = kUstarCannotSplit;
  }
  if (!split.error && overflowsPrefix(run, split)) split.error = kUstarCannotSplit;
  if (split.error) {
    run.log.LogError(split.error);
    run.log.LogDataX("filePathTooLong", path);
    return false;
  }
  fields.name = split.name;
  fields.prefix = split.prefix;
  return true;
}

// Places the path, by a record in front of the header where it does not fit.
bool placePath(WriteRun& run, XString& path, const mvFileInfo& info, HeaderFields& fields) {
  const size_t length = path.str().size();
  const WriteFormat format = run.settings.format;
  if (length > kLongestNameInBlock) {
    if (format == WriteFormat::Pax) {
      if (run.log.verbose()) run.log.LogInfo("Writing PAX header..");
      if (!writePaxHeaderToOutput(run, path, info)) return false;
    } else if (format == WriteFormat::Ustar && length <= kLongestUstarPath) {
      return splitForHeader(run, path, fields);
    } else {
      // Longer paths in a ustar archive fall back to GNU's record rather than fail.
      if (run.log.verbose()) run.log.LogInfo("Writing LongLink header..");
      if (!writeLongFilenameToOutput(run, path, info)) return false;
    }
  }
  fields.name = path.str();  // a view: only now does nobody change the path any more
  return true;
}

}  // namespace

bool WriteRun::putZeros(long long n) {
  static constexpr unsigned char kZeros[4096] = {};
  for (; n > 0; n -= static_cast<long long>(sizeof kZeros)) {
    if (!put(kZeros, static_cast<unsigned>(std::min<long long>(n, sizeof kZeros)))) return false;
  }
  return true;
}

bool writeTarHeaderToOutput(WriteRun& run, XString& pathInTar, const mvFileInfo& info) {
  LogContextExitor context(run.log, "writeTarHeaderToOutput");
  if (hasNul(pathInTar)) {
    run.log.LogError("A path with a NUL byte cannot be archived.");
    return false;
  }
  const bool isScript = isScriptPath(pathInTar.str());
  normalisePath(pathInTar, info);
  if (run.log.verbose()) run.log.LogDataX("filePathInTar", pathInTar);

  HeaderFields fields = commonFields(run, info);
  if (isScript && !info.m_isDirectory) fields.mode = static_cast<unsigned>(run.settings.scriptFileMode);
  fields.userName = run.settings.userName;
  fields.groupName = run.settings.groupName;
  fields.magic = run.settings.format == WriteFormat::Gnu ? TarMagic::Gnu : TarMagic::Ustar;
  fields.size = info.m_isDirectory ? 0 : info.m_size;
  fields.typeFlag = info.m_isDirectory ? kTypeDirectory : kTypeRegular;
  if (!placePath(run, pathInTar, info, fields)) return false;

  unsigned char block[kBlockSize];
  encodeHeaderBlock(fields, block);
  if (!run.archive.m_output) {
    run.log.LogError("No output object for writing file to tar..");
    return false;
  }
  return run.put(block, kBlockSize);
}

bool writeLongFilenameToOutput(WriteRun& run, XString& path, const mvFileInfo& info) {
  normalisePath(path, info);
  if (!run.archive.m_output) {
    run.log.LogError("No output object for writing file to tar.");
    return false;
  }
  const std::string data(path.getUtf8(), path.str().size() + 1);  // with its NUL
  HeaderFields fields;
  fields.name = kLongLinkName;
  fields.size = static_cast<long long>(data.size());
  fields.typeFlag = kTypeLongName;
  fields.userName = run.settings.userName;
  fields.groupName = run.settings.groupName;
  fields.magic = TarMagic::Gnu;  // whatever the archive's format is
  return putRecord(run, fields, data);
}

bool writePaxHeaderToOutput(WriteRun& run, XString& path, const mvFileInfo& info) {
  normalisePath(path, info);
  if (!run.archive.m_output) return false;
  const std::string record = paxPathRecord(path.str(), run.settings.options.paxExact);
  // FileMode also for a script: only the member's own header has ScriptFileMode.
  HeaderFields fields = commonFields(run, info);
  fields.name = path.str();
  fields.size = static_cast<long long>(record.size());
  fields.typeFlag = kTypePax;
  fields.magic = TarMagic::Ustar;
  return putRecord(run, fields, record);
}

}  // namespace morvane

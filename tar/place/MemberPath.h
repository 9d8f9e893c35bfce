// The path of one member on its way from the archive to the disk, the same in both engines.
#pragma once

#include "runtime/text/XString.h"
#include "tar/format/NameDecoder.h"
#include "tar/settings/ReadSettings.h"

namespace morvane {

class LogBase;
class ProgressEvent;
struct Member;

// One object for a run; each member replaces the one before. References stay valid until the next set or
// rename. It decides nothing: a path that leads out of the target, or that is too long, is ExtractTarget's to
// refuse.
class MemberPath {
 public:
  MemberPath() = default;
  // One that lies below this target, to be renamed.
  explicit MemberPath(const XString& targetDir) : m_dir(targetDir) {}
  // Path rules, decoding, and the place below UntarFromDir. An unknown Charset is said once. Nothing of the
  // member is kept but what the rules leave of its path.
  void set(const Member& member, const ReadSettings& settings, LogBase& log);
  // Where a hard link's target is, by the rules that a member of that path goes by. Empty where they leave
  // nothing.
  std::string targetOf(const std::string& linkPath, const ReadSettings& settings, LogBase& log);
  // Puts another path, in UTF-8, in the member's place, by the same rules.
  void rename(const std::string& path, const ReadSettings& settings);
  // Takes a path that passed the rules before.
  void setAgain(const std::string& entryPath);
  // The decoder of names, for what else is to be decoded of the same archive.
  CharsetDecoder& decoder(const ReadSettings& settings, LogBase& log) {
    return m_decoder.forCharset(settings.charset, log);
  }
  // ".", or whatever UntarFromDir is, joined with entryPath(); absolute entry paths stand for themselves.
  // Made when it is first asked for: a walk needs none.
  const XString& outputPath() const;
  // UntarFromDir as it was when the path was set: one set in the member's own callback holds from the next
  // on.
  const XString& targetDir() const { return m_dir; }
  // The member's path after the path rules: what the filters see.
  const XString& entryPath() const { return m_entryPath; }

 private:
  // `path` is replaced; a text that was long keeps its room for the next member. The rules of members and of
  // hard links' targets, once.
  void applyRules(const std::string& stored, const ReadSettings& settings, LogBase& log, std::string& path);

  // The rules' result, and the target that it lies below. The path on the disk is made of both on demand.
  XString m_entryPath;
  XString m_dir;
  mutable XString m_outputPath;
  // False after each new path.
  mutable bool m_hasOutputPath = false;
  NameDecoder m_decoder;
};

// Extension data may carry texts of many megabytes: what was taken from such a one is not kept twice. Over 1
// MiB; a shorter one keeps its room, which the next member uses again.
void giveUpLongText(std::string& text);

// Sends onTarHeader. What the callback is shown is good until it returns.
void announceHeader(ProgressEvent& event, const Member& member, const XString& entryPath);

}  // namespace morvane

// What a run knows of hard links: which members may be their targets, under which names, and which links wait
// for a target that comes later. Paths that mean the same are the same here, however they are written ("./a",
// "a").
#pragma once

#include <map>
#include <string>
#include <unordered_set>
#include <vector>

namespace morvane {

// It holds names and touches no file. What it holds grows with what is skipped, renamed or early, not with
// the archive; a run may skip millions, hence the hashes.
class LinkTable {
 public:
  // Both below the target, after the path rules.
  struct Waiting {
    std::string path, target;
    bool isGiven = false;  // by the event: it means the name that stands there
  };

  // Before a run: links never reach over from one archive to the next.
  void clear();

  // A member that was skipped, refused or filtered out is no target, though a file of its name may be there:
  // it would be another one. What is made later under that name is one again. A hash stands for each path; a
  // false hit leaves a link out, and says so.
  void noteUnmade(const std::string& path);
  void noteMade(const std::string& path);
  bool mayBeTarget(const std::string& path) const;

  // Links to a member that the event renamed follow its new name.
  void noteRenamed(const std::string& from, const std::string& to);
  // A later member of that name was not renamed.
  void forgetRenamed(const std::string& path);
  const std::string& nameNow(const std::string& path) const;

  // A link of that name that still waits gives way to what comes now.
  void replaceWaiting(const std::string& path);
  void waitFor(Waiting link) { m_waiting.push_back(std::move(link)); }
  std::vector<Waiting> takeWaiting();

 private:
  // By old name, the new one. Empty for nearly every run, as the others are.
  std::unordered_set<size_t> m_unmade;
  std::map<std::string, std::string> m_renamed;
  std::vector<Waiting> m_waiting;
};

}  // namespace morvane

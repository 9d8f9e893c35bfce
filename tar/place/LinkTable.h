// What a run knows of hard links: which members may be their targets, under which names, and which links wait
// for a target that comes later. Paths that mean the same are the same here, however they are written ("./a",
// "a").
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace morvane {

// It holds names and touches no file. A run may place or skip millions: of those that are noted a hash each
// is kept, 11 to 22 bytes. Whole names are kept only of what is renamed or early. One thread. Paths are bytes
// of any length; memory grows with the archive, and nothing but a lack of it fails.
class LinkTable {
 public:
  // Both below the target, after the path rules. Of a link whose target had not come when it did.
  struct Waiting {
    std::string path, target;
    bool isGiven = false;  // by the event: a path on the disk; else a stored one
  };

  // Before a run: links never reach over from one archive to the next, nor from one target to another.
  void clear();

  // What became of the last member of a path on the disk. To one that was refused nothing may be linked, nor
  // to one that has not come yet, though a file of its name may be there: it would be another one. The latest
  // word on a path holds.
  enum class Seen { Nothing, Unmade, Made };
  void noteUnmade(const std::string& path) { note(path, About::Disk, Seen::Unmade); }
  void noteMade(const std::string& path) { note(path, About::Disk, Seen::Made); }
  // Where it is known without a note that it was made.
  void forgetUnmade(const std::string& path) { takeBack(path, About::Disk); }
  Seen seen(const std::string& path) const;

  // The same of stored paths, after the rules: of members that were skipped or filtered out. What stands on
  // the disk under such a path may be a member that the event renamed.
  void noteUnchosen(const std::string& stored) { note(stored, About::Choice, Seen::Unmade); }
  // A member was chosen, and links to it follow the name that the event gave it; it may be empty, for none.
  // `to` is that name after the rules.
  void noteRenamed(const std::string& stored, const std::string& to);
  // It was chosen under its own name.
  void noteKeptName(const std::string& stored);
  // The path itself where it was not renamed; the reference is good until the table changes or `stored` goes.
  const std::string& nameNow(const std::string& stored) const;
  // Whether the last member of that stored path was not chosen.
  bool isUnchosen(const std::string& stored) const;
  // Whether what stands on the disk under that stored path is another member, which the event has renamed.
  bool isAnothers(const std::string& stored) const;

  // Whoever calls it has let an earlier one of its name give way (replaceWaiting).
  void waitFor(Waiting link);
  bool waits(const std::string& path) const;
  // A link of that name that still waits gives way to what comes now.
  void replaceWaiting(const std::string& path);
  // Where it leads by now.
  const std::string& targetNow(const Waiting& link) const {
    return link.isGiven ? link.target : nameNow(link.target);
  }
  // In the order in which they came, but each behind the one that it waits for. None waits afterwards; names
  // that were noted stay.
  std::vector<Waiting> takeWaiting();

 private:
  // What a note is about: whether a path on the disk was made, whether a stored one was chosen, and whether
  // the disk has under it what is stored so. Unmade stands for the negative answer.
  enum class About { Disk, Choice, Name };
  static uint64_t keyOf(const std::string& path, About about);
  static unsigned maskOf(About about) { return 1u << static_cast<unsigned>(about); }
  void note(const std::string& path, About about, Seen seen);
  Seen find(const std::string& path, About about) const;
  void takeBack(const std::string& path, About about);
  // Only ever to twice the size.
  void grow();

  // A hash of a path and what the note is about each, its lowest bit telling Made from Unmade; 0 is a free
  // place. Probed one after the other. A set of the library would take four times the memory.
  std::vector<uint64_t> m_seen;
  size_t m_seenCount = 0;
  unsigned m_noted = 0;  // what there are notes about
  // By old name, the new one. Empty for nearly every run.
  std::map<std::string, std::string> m_renamed;
  // The links, those that gave way without a path, and where each stands.
  std::vector<Waiting> m_waiting;
  // A place may have no path any more; m_waitingAt leads to the others alone, by clean path.
  std::unordered_map<std::string, size_t> m_waitingAt;
};

}  // namespace morvane

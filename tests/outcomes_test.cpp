// Every public method with each of its outcomes: the result and the whole log of each stand in
// testdata/outcomes.txt.
#include <filesystem>
#include <regex>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;

const std::string kLongName(101, 'n');

struct Outcome {
  std::string call;
  std::function<bool()> run;
};

// A tree of one file, a single file and an archive in each form, and short words for what goes wrong. One
// place serves one call.
class Place {
 public:
  Place() {
    writeFile(at("tree/file"), "text");
    writeFile(at("one"), "one");
    setMtime(at("one"), 1700000000);
    with(kArchive);
    t.put_UntarFromDir(at("to"));
    t.put_AbortCheckMs(1000000000);  // by time nobody is asked twice
    t.AddFile(at("one"));
    t.AddDirRoot(at("tree"));
  }

  std::vector<Outcome> outcomes();
  // With what is the same everywhere: "%" for the scratch directory.
  std::string log() {
    std::string log = std::regex_replace(logOf(t), std::regex("untar: [0-9]+"), "untar: MS");
    log = std::regex_replace(log, std::regex("morvaneVersion: .*"), "morvaneVersion: V");
    log = std::regex_replace(log, std::regex("currentWorkingDir: .*"), "currentWorkingDir: HERE");
    return std::regex_replace(log, std::regex(m_dir.path()), "%");
  }

 private:
  inline static const std::string kArchive = directory("d/") + member("d/f", "data") + kEnd;
  inline static const std::string kEveryKind = directory("dm") + longName("long.m") + member("x") +
                                               member("skip", "data") + paxHeader("path", "p.m") +
                                               member("g", "data") + directory("skipped") + kEnd;
  inline static const std::string kNoEnd = kArchive.substr(0, 1536), kCutData = kArchive.substr(0, 1026);

  struct Event : ActingEvent {
    void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) override {
      ActingEvent::onTarEntry(path, size, isDirectory, skip);
      skip = skip || skipAll;
    }
    bool skipAll = false;
  };

  std::string at(const std::string& name) const { return m_dir / name; }

  ClsTar& with(const std::string& archive) {
    writeFile(at("tar"), archive);
    for (const auto& [form, tool, option] :
         {std::tuple{"gz", "gzip", "-nc"}, {"bz2", "bzip2", "-c"}, {"Z", "compress", "-cf"}})
      writeFile(at(form), run({tool, option}, archive).out);
    return t;
  }
  ClsTar& fullDisk(const std::string& archive) {
    sh("mkdir to; ln -s /dev/full to/f");
    return with(archive);
  }
  ClsTar& words(const char* words, const std::string& archive = kArchive) {
    t.put_UncommonOptions(words);
    return with(archive);
  }
  ClsTar& sh(const std::string& script) {
    EXPECT_EQ(0, run({"sh", "-c", script}, "", m_dir.path()).status) << script;
    return t;
  }
  ClsTar& cut(const std::string& form, size_t size) {
    std::filesystem::resize_file(at(form), size);
    return t;
  }
  ClsTar& without(const std::string& path) {
    std::filesystem::remove_all(at(path));
    return t;
  }
  ClsTar& alone(const std::string& file) {
    t.ClearDirRootsAndFiles();
    t.AddFile(file);
    return t;
  }
  ClsTar& aloneAs(const std::string& pathInTar, const char* format = "gnu") {
    t.put_WriteFormat(format);
    t.ClearDirRootsAndFiles();
    t.AddFile2(at("one"), pathInTar);
    return t;
  }

  ClsTar& verbose(ClsTar& tar) {
    tar.put_VerboseLogging(true);
    return tar;
  }
  ClsTar& everyKind() {
    t.put_MustMatch("*m");
    return with(kEveryKind);
  }
  ClsTar& debug(ClsTar& tar) {
    tar.put_UntarDebugLog(true);
    return tar;
  }
  ClsTar& most(int members) {
    t.put_UntarMaxCount(members);
    return t;
  }
  TricklingSource& source(const std::string& form) {
    return *(m_source = std::make_unique<TricklingSource>(readFile(at(form)), 1000));
  }

  // A form of the archive, changed at its end.
  std::string append(const std::string& form, const std::string& bytes) {
    writeFile(at(form), readFile(at(form)) + bytes);
    return at(form);
  }
  std::string shorten(const std::string& form, size_t n) {
    cut(form, readFile(at(form)).size() - n);
    return at(form);
  }
  std::string flip(const std::string& form, size_t fromEnd) {
    std::string bytes = readFile(at(form));
    bytes[bytes.size() - fromEnd] ^= 1;
    writeFile(at(form), bytes);
    return at(form);
  }

  LimitedOutput& room(size_t bytes) { return *(m_limited = std::make_unique<LimitedOutput>(bytes)); }
  size_t sizeOfGz() { return t.WriteTarGz(out) ? out.bytes.size() : 0; }
  DataBuffer& bytes() {
    EXPECT_TRUE(m_bytes.loadFileUtf8(at("tar").c_str(), nullptr));
    return m_bytes;
  }
  ProgressEvent* abortAt(int question) {
    m_event.abortAtQuestion = question;
    return &m_event;
  }
  ProgressEvent* abortAtPercent(int percent) {
    m_event.abortAtPercent = percent;
    return &m_event;
  }
  ProgressEvent* removing(const std::string& path) {
    m_event.act = [this, path](const std::string&) { without(path); };
    return &m_event;
  }
  ProgressEvent* skippingAll() {
    m_event.skipAll = true;
    return &m_event;
  }

  const ScratchDir m_dir;
  ClsTar t;
  LimitedOutput out;
  XString text;
  ClsBinData data;
  Event m_event;
  std::unique_ptr<LimitedOutput> m_limited;
  std::unique_ptr<TricklingSource> m_source;
  DataBuffer m_bytes;
};

#define OUTCOME(call)              \
  {                                \
#call, [this] { return call; } \
  }
std::vector<Outcome> Place::outcomes() {
  static const std::string large = member("f", noise(400000, 1)) + kEnd;
  return {
      OUTCOME(t.AddDirRoot(at("tree"))),
      OUTCOME(t.AddDirRoot(at("none"))),
      OUTCOME(t.AddDirRoot(at("one"))),
      OUTCOME(t.AddDirRoot2("p", at("tree"))),
      OUTCOME(t.AddDirRoot2("p", at("none"))),
      OUTCOME(t.AddDirRoot2("p", at("one"))),
      OUTCOME(t.AddFile(at("none"))),
      OUTCOME(t.AddFile2(at("one"), "p/two")),
      OUTCOME(t.GetDirRoot(0, text)),
      OUTCOME(t.GetDirRoot(1, text)),
      OUTCOME(t.GetDirRoot(-1, text)),
      OUTCOME(t.ClearDirRootsAndFiles()),
      OUTCOME(t.WriteTar(at("new"))),
      OUTCOME(t.WriteTar(at("none/new"))),
      OUTCOME(t.WriteTar(at("tree"))),
      OUTCOME(t.WriteTar("/dev/full")),
      OUTCOME(t.WriteTar(out)),
      OUTCOME(alone("\33unclosed").WriteTar(out)),
      OUTCOME(aloneAs("").WriteTar(out)),
      OUTCOME(without("one").WriteTar(out)),
      OUTCOME(verbose(alone(at("gone"))).WriteTar(out)),
      OUTCOME(without("tree").WriteTar(out)),
      OUTCOME(aloneAs(kLongName, "ustar").WriteTar(out)),
      OUTCOME(t.WriteTar(out, removing("one"))),
      OUTCOME(t.WriteTar(room(511))),
      OUTCOME(t.WriteTar(room(514))),
      OUTCOME(t.WriteTar(room(515))),
      OUTCOME(t.WriteTar(room(1600))),
      OUTCOME(t.WriteTar(out, abortAtPercent(100))),
      OUTCOME(t.WriteTar(out, abortAt(1))),
      OUTCOME(t.WriteTar(out, abortAt(3))),
      OUTCOME(t.WriteTar(out, abortAt(4))),
      OUTCOME(verbose(t).WriteTar(out)),
      OUTCOME(verbose(aloneAs(kLongName)).WriteTar(out)),
      OUTCOME(verbose(aloneAs(kLongName, "pax")).WriteTar(out)),
      OUTCOME(t.WriteTarGz(at("new"))),
      OUTCOME(t.WriteTarGz(at("none/new"))),
      OUTCOME(t.WriteTarGz(room(9))),
      OUTCOME(t.WriteTarGz(room(10))),
      OUTCOME(t.WriteTarGz(room(sizeOfGz() - 1))),
      OUTCOME(without("one").WriteTarGz(out)),
      OUTCOME(t.WriteTarGz(out, abortAt(3))),
      OUTCOME(t.WriteTarBz2(at("new"))),
      OUTCOME(t.WriteTarBz2(at("none/new"))),
      OUTCOME(t.WriteTarBz2(room(9))),
      OUTCOME(without("one").WriteTarBz2(out)),
      OUTCOME(t.WriteTarBz2(out, abortAt(3))),
      OUTCOME(t.Untar(at("tar")) == 2),
      OUTCOME(t.Untar(source("tar")) == 2),
      OUTCOME(most(1).Untar(at("tar")) == 1),
      OUTCOME(t.Untar(at("none")) >= 0),
      OUTCOME(with("").Untar(at("tar")) >= 0),
      OUTCOME(with(std::string(512, 'x')).Untar(at("tar")) >= 0),
      OUTCOME(with(longName("n") + std::string(512, 'x')).Untar(at("tar")) >= 0),
      OUTCOME(with(kCutData).Untar(at("tar")) >= 0),
      OUTCOME(with(member("e", "", 'L')).Untar(at("tar")) >= 0),
      OUTCOME(with(member("e", "", 'x')).Untar(at("tar")) >= 0),
      OUTCOME(with(longName("cut").substr(0, 513)).Untar(at("tar")) >= 0),
      OUTCOME(with(paxHeader("path", "cut").substr(0, 513)).Untar(at("tar")) >= 0),
      OUTCOME(sh("mkdir -p to/d/f").Untar(at("tar")) >= 0),
      OUTCOME(sh("mkdir to; touch to/d").Untar(at("tar")) >= 0),
      OUTCOME(with(member("d") + member("d/f")).Untar(at("tar")) >= 0),
      OUTCOME(sh("mkdir -p to/d; ln -s /dev/full to/d/f").Untar(at("tar")) >= 0),
      OUTCOME(words("FullRead,MaxExtensionBytes=99", longName(kLongName)).Untar(at("tar")) >= 0),
      OUTCOME(words("Confine=beneath", member("../f") + kEnd).Untar(at("tar")) >= 0),
      OUTCOME((sh("mkdir -p to/d/f"), words("SkipUncreatable")).Untar(at("tar")) >= 0),
      OUTCOME(debug(everyKind()).Untar(at("tar")) == 3),
      OUTCOME(verbose(everyKind()).Untar(at("tar")) == 3),
      OUTCOME(
          t.extractToFile(source("tar"), "x", nullptr, nullptr, nullptr, -1, nullptr, 0, t.log(), nullptr)),
      OUTCOME(t.Untar(at("tar"), abortAt(1)) >= 0),
      OUTCOME(t.Untar(at("tar"), abortAt(3)) >= 0),
      OUTCOME(t.UntarFromMemory(bytes()) == 2),
      OUTCOME(cut("tar", 1024).UntarFromMemory(bytes()) >= 0),
      OUTCOME(t.UntarFromMemory(bytes(), abortAt(1)) >= 0),
      OUTCOME(t.VerifyTar(at("tar"))),
      OUTCOME(t.VerifyTar(source("tar"))),
      OUTCOME(t.VerifyTar(at("none"))),
      OUTCOME(cut("tar", 1536).VerifyTar(at("tar"))),
      OUTCOME(t.VerifyTar(at("tar"), abortAt(1))),
      OUTCOME(t.ListXml(at("tar"), text)),
      OUTCOME(t.ListXml(source("tar"), text)),
      OUTCOME(t.ListXml(at("none"), text)),
      OUTCOME(cut("tar", 1536).ListXml(at("tar"), text)),
      OUTCOME(with(longName("cut").substr(0, 513)).ListXml(at("tar"), text)),
      OUTCOME(t.ListXml(at("tar"), text, abortAt(1))),
      OUTCOME(t.UntarFirstMatchingToMemory(bytes(), "*f", data.data())),
      OUTCOME(t.UntarFirstMatchingToMemory(bytes(), "none", data.data())),
      OUTCOME(cut("tar", 1026).UntarFirstMatchingToMemory(bytes(), "*f", data.data())),
      OUTCOME(cut("tar", 1024).UntarFirstMatchingToMemory(bytes(), "none", data.data())),
      OUTCOME(t.UntarFirstMatchingToBd(at("tar"), "*f", data)),
      OUTCOME(t.UntarFirstMatchingToBd(at("tar"), "none", data)),
      OUTCOME(t.UntarFirstMatchingToBd(source("tar"), "*f", data)),
      OUTCOME(t.UntarFirstMatchingToBd(at("none"), "*f", data)),
      OUTCOME(cut("tar", 1026).UntarFirstMatchingToBd(at("tar"), "*f", data)),
      OUTCOME(cut("tar", 1024).UntarFirstMatchingToBd(at("tar"), "none", data)),
      OUTCOME(t.UntarGz(at("gz"))),
      OUTCOME(t.UntarGz(source("gz"))),
      OUTCOME(t.UntarGz(at("none"))),
      OUTCOME(cut("gz", 9).UntarGz(at("gz"))),
      OUTCOME(t.UntarGz(at("bz2"))),
      OUTCOME(sh("printf '\\037\\213\\007.......' > gz").UntarGz(at("gz"))),
      OUTCOME(sh("printf '\\037\\213\\010\\004......\\001' > gz").UntarGz(at("gz"))),
      OUTCOME(sh("printf '\\037\\213\\010\\004......\\002\\000x' > gz").UntarGz(at("gz"))),
      OUTCOME(sh("printf '\\037\\213\\010\\010......name' > gz").UntarGz(at("gz"))),
      OUTCOME(sh("printf '\\037\\213\\010\\020......comment' > gz").UntarGz(at("gz"))),
      OUTCOME(sh("printf '\\037\\213\\010\\002......c' > gz").UntarGz(at("gz"))),
      OUTCOME(cut("gz", 50).UntarGz(at("gz"))),
      OUTCOME(with(kCutData).UntarGz(at("gz"))),
      OUTCOME(with(kNoEnd + "part of a block").UntarGz(at("gz"))),
      OUTCOME(with(std::string(512, 'x')).UntarGz(at("gz"))),
      OUTCOME(sh("mkdir to; touch to/d").UntarGz(at("gz"))),
      OUTCOME(t.UntarGz(at("gz"), abortAt(1))),
      OUTCOME(t.UntarGz(append("gz", "more"))),
      OUTCOME(words("VerifyGzip").UntarGz(append("gz", "more"))),
      OUTCOME(words("GzipAllMembers").UntarGz(append("gz", "more"))),
      OUTCOME(words("GzipAllMembers").UntarGz(append("gz", "\0more"s))),
      OUTCOME(words("GzipAllMembers").UntarGz(append("gz", std::string(9000, '\0')))),
      OUTCOME(t.UntarGz(flip("gz", 8))),
      OUTCOME(words("VerifyGzip").UntarGz(flip("gz", 8))),
      OUTCOME(words("VerifyGzip").UntarGz(flip("gz", 1))),
      OUTCOME(words("GzipAllMembers").UntarGz(shorten("gz", 1))),
      OUTCOME(words("RequireEndOfArchive", kNoEnd).UntarGz(at("gz"))),
      OUTCOME(words("MaxExtensionBytes=99", longName(kLongName)).UntarGz(at("gz"))),
      OUTCOME(with(longName("n") + std::string(512, 'x')).UntarGz(at("gz"))),
      OUTCOME(sh("mkdir -p to/d; ln -s /dev/full to/d/f").UntarGz(at("gz"))),
      OUTCOME(fullDisk(large).UntarGz(at("gz"))),
      OUTCOME(fullDisk(member("a", noise(130000, 1)) + large).UntarGz(at("gz"))),
      OUTCOME(fullDisk(member("f", noise(300, 1))).UntarBz2(at("bz2"))),
      OUTCOME(with(paxHeader("path", "p") + member("f") + kEnd).UntarGz(at("gz"))),
      OUTCOME(debug(everyKind()).UntarGz(at("gz"))),
      OUTCOME(verbose(everyKind()).UntarGz(at("gz"))),
      OUTCOME(t.UntarBz2(at("bz2"))),
      OUTCOME(t.UntarBz2(append("bz2", "more"))),
      OUTCOME(words("RequireEndOfArchive,Bz2Framed", kNoEnd).UntarBz2(at("bz2"))),
      OUTCOME(words("RequireEndOfArchive", kNoEnd).UntarBz2(at("bz2"))),
      OUTCOME(words("Bz2Framed", kCutData).UntarBz2(at("bz2"))),
      OUTCOME(words("", kCutData).UntarBz2(at("bz2"))),
      OUTCOME(t.UntarBz2(source("bz2"))),
      OUTCOME(t.UntarBz2(at("none"))),
      OUTCOME(t.UntarBz2(at("gz"))),
      OUTCOME(cut("bz2", 50).UntarBz2(at("bz2"))),
      OUTCOME(sh("mkdir -p to/d/f").UntarBz2(at("bz2"))),
      OUTCOME(t.UntarBz2(at("bz2"), abortAt(1))),
      OUTCOME(t.UntarZ(at("Z"))),
      OUTCOME(t.UntarZ(source("Z"))),
      OUTCOME(t.UntarZ(at("none"))),
      OUTCOME(t.UntarZ(at("gz"))),
      OUTCOME(with(kCutData).UntarZ(at("Z"))),
      OUTCOME(with(member("f") + member("f/below")).UntarZ(at("Z"))),
      OUTCOME(t.UntarZ(at("Z"), abortAt(1))),
      OUTCOME(t.UntarMemberToOutput(at("tar"), out)),
      OUTCOME(t.UntarMemberToOutput(at("gz"), out)),
      OUTCOME(t.UntarMemberToOutput(source("Z"), out)),
      OUTCOME(t.UntarMemberToOutput(at("none"), out)),
      OUTCOME(t.UntarMemberToOutput(at("tar"), out, skippingAll())),
      OUTCOME(t.UntarMemberToOutput(at("bz2"), out, skippingAll())),
      OUTCOME(t.UntarMemberToOutput(at("tar"), room(3))),
      OUTCOME(t.UntarMemberToOutput(at("Z"), room(3))),
      OUTCOME(cut("tar", 1026).UntarMemberToOutput(at("tar"), out)),
      OUTCOME(t.UntarMemberToOutput(at("tar"), out, abortAt(1))),
      OUTCOME(t.CreateDeb(at("gz"), at("one"), at("deb"))),
      OUTCOME(t.CreateDeb(at("none"), at("gz"), at("deb"))),
      OUTCOME(t.CreateDeb(at("gz"), at("none"), at("deb"))),
      OUTCOME(t.CreateDeb(at("gz"), at("gz"), at("none/deb"))),
      OUTCOME(t.CreateDeb(at("gz"), at("gz"), room(100))),
  };
}
#undef OUTCOME

TEST(Outcomes, OfEveryMethod) {
  std::string all;
  for (size_t i = 0, n = 1; i < n; ++i) {
    Place place;
    const std::vector<Outcome> outcomes = place.outcomes();
    n = outcomes.size();
    const bool result = outcomes[i].run();
    all += outcomes[i].call + (result ? ": true\n" : ": false\n") + place.log() + "\n";
  }
  if (const char* const made = std::getenv("OUTCOMES_TO"))
    writeFile(made, all);  // to look at, and to take in
  EXPECT_EQ(readFile(MORVANE_TESTDATA "/outcomes.txt"), all);
}

}  // namespace
}  // namespace morvane::testing

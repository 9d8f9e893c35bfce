// Every public method with each of its outcomes. testdata/outcomes.txt has the calls, and behind each its
// result and its whole log:
//
//   [SCRIPT] SETTING=VALUE ... METHOD ARGUMENT ...: RESULT
//
// The script runs in a scratch directory where there are a tree of one file, a single file and an archive in
// each form. Arguments are names there; "<NAME" is a source that cannot seek, "-" an output in memory.
#include <unistd.h>

#include <regex>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

const std::string kLongName(101, 'n'), kArchive = directory("d/") + member("d/f", "data") + kEnd,
                                       kNoHeader(512, 'x'), kLarge = member("f", noise(400000, 1)) + kEnd;

const std::map<std::string, std::string> kArchives = {
    {"empty", ""},
    {"no-header", kNoHeader},
    {"name-no-header", longName("n") + kNoHeader},
    {"no-end", kArchive.substr(0, 1536)},
    {"part-of-block", kArchive.substr(0, 1536) + "part of a block"},
    {"cut-data", kArchive.substr(0, 1026)},
    {"cut-L", longName("cut").substr(0, 513)},
    {"cut-x", paxHeader("path", "cut").substr(0, 513)},
    {"empty-L", member("e", "", 'L')},
    {"empty-x", member("e", "", 'x')},
    {"long-name", longName(kLongName)},
    {"pax", paxHeader("path", "p") + member("f") + kEnd},
    {"leaving", member("../f") + kEnd},
    {"file-above", member("d") + member("d/f")},
    {"small", member("f", noise(300, 1))},
    {"large", kLarge},
    {"two-large", member("a", noise(130000, 1)) + kLarge},
    {"to-match", member("a.bin", "1") + directory("docs") + member("//docs\\b.txt", "2") +
                     member("long.name", "c.txt", 'L') + member("c.txt", "3") + member("README", "4") + kEnd},
    {"every-kind", directory("dm") + longName("long.m") + member("x") + member("skip", "data") +
                       paxHeader("path", "p.m") + member("g", "data") + directory("skipped") + kEnd}};

class Call {
 public:
  explicit Call(const std::string& line) {
    writeFile(at("tree/file"), "text");
    writeFile(at("one"), "one");
    setMtime(at("one"), 1700000000);
    pack(kArchive);
    t.put_UntarFromDir(at("to"));
    t.put_AbortCheckMs(1000000000);  // by time nobody is asked twice
    t.AddFile(at("one"));
    t.AddDirRoot(at("tree"));
    const size_t behindScript = line[0] == '[' ? line.find("] ") + 2 : 0;
    std::istringstream words(line.substr(behindScript));
    for (std::string word; words >> word;) {
      const size_t equals = word.find('=');
      if (m_words.empty() && equals != std::string::npos) {
        set(word.substr(0, equals), word.substr(equals + 1));
      } else {
        m_words.push_back(word);
      }
    }
    if (behindScript > 0) must(m_dir, line.substr(1, behindScript - 3));
  }

  int run() {
    m_words.resize(4);
    const std::string& first = m_words[1];
    const bool isSource = first[0] == '<', isOut = first == "-";
    TricklingSource source(isSource ? readFile(at(first.substr(1))) : "", 1000);
    const XString path(at(first));
    LimitedOutput out(m_room);
    ProgressEvent* const e = m_hasEvent ? &m_event : nullptr;
    DataBuffer bytes;
    ClsBinData data;
    XString text;
    EXPECT_TRUE(bytes.loadFileUtf8(at("tar").c_str(), nullptr));
    const std::map<std::string, std::function<int()>> kMethods = {
        {"AddDirRoot", [&] { return t.AddDirRoot(path); }},
        {"AddDirRoot2", [&] { return t.AddDirRoot2(first, at(m_words[2])); }},
        {"AddFile", [&] { return t.AddFile(path); }},
        {"AddFile2", [&] { return t.AddFile2(path, m_words[2]); }},
        {"AddBytes", [&] { return t.AddBytes(first, bytes); }},
        {"GetDirRoot", [&] { return t.GetDirRoot(std::stoi(first), text); }},
        {"ClearDirRootsAndFiles", [&] { return t.ClearDirRootsAndFiles(); }},
        {"WriteTar", [&] { return isOut ? t.WriteTar(out, e) : t.WriteTar(path, e); }},
        {"WriteTarGz", [&] { return isOut ? t.WriteTarGz(out, e) : t.WriteTarGz(path, e); }},
        {"WriteTarBz2", [&] { return isOut ? t.WriteTarBz2(out, e) : t.WriteTarBz2(path, e); }},
        {"Untar", [&] { return isSource ? t.Untar(source, e) : t.Untar(path, e); }},
        {"UntarFromMemory", [&] { return t.UntarFromMemory(bytes, e); }},
        {"VerifyTar", [&] { return isSource ? t.VerifyTar(source, e) : t.VerifyTar(path, e); }},
        {"ListXml", [&] { return isSource ? t.ListXml(source, text, e) : t.ListXml(path, text, e); }},
        {"UntarFirstMatchingToMemory",
         [&] { return t.UntarFirstMatchingToMemory(bytes, first, data.data()); }},
        {"UntarFirstMatchingToBd",
         [&] {
           return isSource ? t.UntarFirstMatchingToBd(source, m_words[2], data)
                           : t.UntarFirstMatchingToBd(path, m_words[2], data);
         }},
        {"UntarGz", [&] { return isSource ? t.UntarGz(source, e) : t.UntarGz(path, e); }},
        {"UntarBz2", [&] { return isSource ? t.UntarBz2(source, e) : t.UntarBz2(path, e); }},
        {"UntarZ", [&] { return isSource ? t.UntarZ(source, e) : t.UntarZ(path, e); }},
        {"UntarMemberToOutput",
         [&] {
           return isSource ? t.UntarMemberToOutput(source, out, e) : t.UntarMemberToOutput(path, out, e);
         }},
        {"extractToFile",
         [&] {
           return t.extractToFile(source, m_words[2], nullptr, nullptr, nullptr, -1, nullptr, 0, t.log(),
                                  nullptr);
         }},
        {"CreateDeb", [&] {
           const XString second(at(m_words[2])), deb(at(m_words[3]));
           return m_words[3] == "-" ? t.CreateDeb(path, second, out) : t.CreateDeb(path, second, deb);
         }}};
    return kMethods.at(m_words[0])();
  }

  // With what is the same everywhere: "%" for the scratch directory.
  std::string log() {
    std::string log = std::regex_replace(logOf(t), std::regex("untar: [0-9]+"), "untar: MS");
    log = std::regex_replace(log, std::regex("morvaneVersion: .*"), "morvaneVersion: V");
    log = std::regex_replace(log, std::regex("currentWorkingDir: .*"), "currentWorkingDir: HERE");
    return std::regex_replace(log, std::regex(m_dir.path()), "%");
  }

 private:
  std::string at(const std::string& name) const { return name[0] == '/' ? name : m_dir / name; }
  void pack(const std::string& archive) {
    writeFile(at("tar"), archive);
    must(m_dir, "gzip -nc tar > gz; bzip2 -c tar > bz2; compress -cf tar > Z; true");
  }
  ActingEvent& event() { return m_hasEvent = true, m_event; }

  void set(const std::string& name, const std::string& value) {
    const auto number = [&] { return std::stoi(value); };
    const std::map<std::string, std::function<void()>> kSettings = {
        {"abort", [&] { event().abortAtQuestion = number(); }},
        {"percent", [&] { event().abortAtPercent = number(); }},
        {"removing", [&] { event().act = [this, value](const std::string&) { fs::remove(at(value)); }; }},
        {"skip", [&] { event().skipEntry = at(value); }},
        {"only", [&] { t.ClearDirRootsAndFiles() && t.AddFile(at(value)); }},
        {"unclosed", [&] { t.ClearDirRootsAndFiles() && t.AddFile("\33" + value); }},
        {"as",
         [&] { t.ClearDirRootsAndFiles() && t.AddFile2(at("one"), value == "long" ? kLongName : value); }},
        {"archive", [&] { pack(kArchives.at(value)); }},
        {"room", [&] { m_room = std::stoul(value); }},
        {"words", [&] { t.put_UncommonOptions(value.c_str()); }},
        {"format", [&] { t.put_WriteFormat(value.c_str()); }},
        {"match", [&] { t.put_MustMatch(value.c_str()); }},
        {"case", [&] { t.put_UntarCaseSensitive(number()); }},
        {"absolute", [&] { t.put_NoAbsolutePaths(!number()); }},
        {"discard", [&] { t.put_UntarDiscardPaths(number()); }},
        {"most", [&] { t.put_UntarMaxCount(number()); }},
        {"debug", [&] { t.put_UntarDebugLog(number()); }},
        {"verbose", [&] { t.put_VerboseLogging(number()); }}};
    kSettings.at(name)();
  }

  const ScratchDir m_dir;
  ClsTar t;
  ActingEvent m_event;
  bool m_hasEvent = false;
  size_t m_room = 1 << 30;
  std::vector<std::string> m_words;
};

TEST(Outcomes, OfEveryMethod) {
  const std::string expected = readFile(MORVANE_TESTDATA "/outcomes.txt");
  std::string all;
  for (size_t at = 0; at < expected.size(); at = expected.find("\n\n", at) + 2) {
    const std::string line = expected.substr(at, expected.find('\n', at) - at);
    const std::string call = line.substr(0, line.rfind(": "));
    SCOPED_TRACE(call);
    Call made(call);
    const int result = made.run();
    all += call + ": " + std::to_string(result) + "\n" + made.log() + "\n";
  }
  if (const char* const made = std::getenv("OUTCOMES_TO"))
    writeFile(made, all);  // to look at, and to take in
  // The time of a device is root's to set.
  if (geteuid() != 0) {
    const std::regex notSet("\n +Failed to set file times\\.\n.*\n +reason: Operation not permitted(?=\n)");
    all = std::regex_replace(all, notSet, "");
  }
  EXPECT_EQ(expected, all);
}

}  // namespace
}  // namespace morvane::testing

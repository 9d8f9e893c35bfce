// Compressed archives: gzip and bzip2 written, gzip, bzip2 and compress read, whole, damaged and interrupted.
#include "ArchiveSupport.h"
#include "tar/format/ArchiveContent.h"

namespace morvane::testing {
namespace {

std::string gzip(const std::string& bytes) { return run({"gzip", "-nc"}, bytes).out; }
std::string bzip2(const std::string& bytes) { return run({"bzip2", "-c"}, bytes).out; }
std::string compress(const std::string& bytes) { return run({"compress", "-cf"}, bytes).out; }

std::string withFlags(const std::string& packed, unsigned flags) {
  std::string file = "\x1F\x8B\x08"s + static_cast<char>(flags) + "time\x02\x03";
  if (flags & 4) file += "\x05\x01" + std::string(261, '\0');
  if (flags & 8) file += "a name\0"s;
  if (flags & 16) file += '\0';
  if (flags & 2) file += "??";
  return file + packed.substr(10);
}

std::string twoFiles() {
  return member("dir/first", noise(700, 1)) + member("second", noise(20, 2) + "text") + kEnd.substr(512);
}

struct Form {
  const char* name;
  std::string (*pack)(const std::string&);
  bool (ClsTar::*untar)(const XString&, ProgressEvent*);
  bool (ClsTar::*untarSource)(_mvDataSource&, ProgressEvent*);
  bool (ClsTar::*write)(const XString&, ProgressEvent*) = nullptr;
};

const Form kGz = {"UntarGz", gzip, &ClsTar::UntarGz, &ClsTar::UntarGz, &ClsTar::WriteTarGz};
const Form kBz2 = {"UntarBz2", bzip2, &ClsTar::UntarBz2, &ClsTar::UntarBz2, &ClsTar::WriteTarBz2};
const Form kZ = {"UntarZ", compress, &ClsTar::UntarZ, &ClsTar::UntarZ};
const Form kForms[] = {kGz, kBz2, kZ};
const char* const kAllWords = "VerifyGzip,GzipAllMembers,Bz2Framed,RequireEndOfArchive";

class Compressed : public ::testing::Test {
 protected:
  Compressed() { m_tar.put_UntarFromDir(m_dir / "out"); }

  // From a source that gives pieces of any size and cannot seek.
  bool untar(const Form& form, const std::string& packed, unsigned piece = 1000) {
    TricklingSource source(packed, piece);
    return (m_tar.*form.untarSource)(source, nullptr);
  }
  bool untarFile(const Form& form, const std::string& path, ProgressEvent* event = nullptr) {
    return (m_tar.*form.untar)(path, event);
  }
  std::map<std::string, std::string> takeTree() {
    auto tree = treeOf(m_dir / "out");
    fs::remove_all(m_dir / "out");
    return tree;
  }

  const ScratchDir m_dir;
  ClsTar m_tar;
};

TEST_F(Compressed, GzipHeaderFields) {
  const std::string packed = gzip(twoFiles());
  ASSERT_TRUE(untar(kGz, packed)) << logOf(m_tar);
  const auto expected = takeTree();
  for (unsigned flags = 0; flags < 256; ++flags) {
    EXPECT_TRUE(untar(kGz, withFlags(packed, flags), 1 + flags % 40)) << flags << logOf(m_tar);
    ASSERT_EQ(expected, takeTree()) << flags;
  }
  for (size_t n = 0; n < 10 + 2 + 261 + 7 + 1 + 2; ++n) {
    EXPECT_FALSE(untar(kGz, withFlags(packed, 2 | 4 | 8 | 16).substr(0, n))) << n;
    EXPECT_TRUE(logHas(m_tar, "Failed to get ")) << n << logOf(m_tar);
  }
}

// Damage at every byte. Without the words what is there must at least be whole; with them nothing may be
// missing.
TEST_F(Compressed, EveryCutAndFlip) {
  const std::string archive = member("f", noise(30, 1)) + member("g", noise(20, 2)) + kEnd.substr(512);
  ASSERT_TRUE(untar(kGz, gzip(archive)));
  const auto expected = takeTree();
  const auto check = [&](const Form& form, const std::string& damaged, const char* words, bool isCut) {
    m_tar.put_UncommonOptions(words);
    m_tar.BeginStreamingUntar(m_tar.log());  // UntarBz2 goes on where the last run ended
    const bool ok = untar(form, damaged, 100);
    const auto tree = takeTree();
    if (!ok) return;
    // Nothing in a .Z file tells that a byte of it changed.
    if (*words && (isCut || form.untar != kZ.untar)) {
      EXPECT_EQ(expected, tree);
    }
    if (!isCut || form.untar == kBz2.untar) return;
    for (const auto& [path, what] : tree) EXPECT_EQ(expected.at(path), what) << "not whole";
  };
  for (const Form& form : kForms) {
    const std::string packed = form.pack(archive);
    for (size_t i = 0; i < packed.size() && !HasFailure(); ++i) {
      SCOPED_TRACE(std::string(form.name) + " at " + std::to_string(i));
      for (const char* words : {"", kAllWords}) {
        check(form, packed.substr(0, i), words, true);
        for (const int mask : {0xFF, 1 << i % 8}) {
          std::string flipped = packed;
          flipped[i] = static_cast<char>(flipped[i] ^ mask);
          check(form, flipped, words, false);
        }
      }
    }
  }
}

TEST_F(Compressed, Bz2GoesOnWhereTheLastRunEnded) {
  const std::string archive = twoFiles(), packed = bzip2(archive);
  m_tar.put_CaptureXmlListing(true);
  const auto frameIsListed = [this] {
    XString listing;
    m_tar.get_XmlListing(listing);
    EXPECT_TRUE(has(listing.str(), "<path>second</path>"));
    EXPECT_EQ(has(listing.str(), "<?xml"), has(listing.str(), "</tar>"));
    return has(listing.str(), "<?xml");
  };
  EXPECT_TRUE(untar(kBz2, packed));
  const auto expected = takeTree();
  EXPECT_EQ(3u, expected.size());
  EXPECT_FALSE(frameIsListed()) << "neither begun nor closed";
  EXPECT_TRUE(untar(kBz2, packed)) << "the end was reached: extracts nothing, and succeeds";
  EXPECT_TRUE(takeTree().empty());
  // An archive in two files, cut anywhere.
  for (size_t cut = 1; cut < archive.size(); cut += 101) {
    m_tar.BeginStreamingUntar(m_tar.log());
    EXPECT_TRUE(untar(kBz2, bzip2(archive.substr(0, cut)), 10) && untar(kBz2, bzip2(archive.substr(cut)), 10))
        << cut << logOf(m_tar);
    ASSERT_EQ(expected, takeTree()) << cut;
  }
  m_tar.put_UncommonOptions("Bz2Framed");
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(untar(kBz2, packed) && frameIsListed());
    EXPECT_EQ(expected, takeTree());
  }
}

// What a run without an end leaves in its file is on the disk, or the call fails.
TEST_F(Compressed, WhatArrivedIsFlushed) {
  const std::string packed = bzip2(twoFiles().substr(0, 600));
  EXPECT_TRUE(untar(kBz2, packed));
  EXPECT_EQ(noise(700, 1).substr(0, 88), readFile(m_dir / "out/dir/first"));
  fs::remove(m_dir / "out/dir/first");
  fs::create_symlink("/dev/full", m_dir / "out/dir/first");
  m_tar.BeginStreamingUntar(m_tar.log());
  EXPECT_FALSE(untar(kBz2, packed));
}

TEST_F(Compressed, GzipMembersAndBzip2StreamsPerFile) {
  const std::string archive = twoFiles(), nothing = gzip(""), noStream = bzip2("");
  ASSERT_TRUE(untar(kGz, gzip(archive)));
  const auto expected = takeTree();
  for (size_t cut = 0; cut <= archive.size(); cut += 64) {
    const std::string one = archive.substr(0, cut), two = archive.substr(cut);
    const std::string members = withFlags(gzip(one), 8) + nothing + withFlags(gzip(two), 30);
    const std::string streams = bzip2(one) + noStream + bzip2(two);
    m_tar.put_UncommonOptions(kAllWords);
    for (const unsigned piece : {1u, 11u, 5000u}) {
      ASSERT_TRUE(untar(kGz, members, piece)) << cut << " in " << piece << logOf(m_tar);
      ASSERT_EQ(expected, takeTree()) << cut;
      ASSERT_TRUE(untar(kBz2, streams, piece)) << cut << " in " << piece << logOf(m_tar);
      ASSERT_EQ(expected, takeTree()) << cut;
    }
    m_tar.put_UncommonOptions("");
    EXPECT_EQ(!(cut >= 512 && cut < 512 + 700) && !(cut >= 2048 && cut < 2048 + 24), untar(kGz, members))
        << cut << ": the first member alone, and the end rule of a stream";
    takeTree();
  }
}

// A plain name as pattern stands for the last part of a path, and a confined run does not replace its
// archive.
TEST_F(Compressed, PlainNamesAndTheArchiveInTheTarget) {
  for (const Form& form : kForms) {
    const std::string packed = form.pack(member("a", "evil") + member("dir/b", "1") + kEnd);
    writeFile(m_dir / "out/a", packed);
    m_tar.put_UncommonOptions("Confine=beneath,Bz2Framed");
    m_tar.put_MustMatch("b");
    EXPECT_TRUE(untarFile(form, m_dir / "out/a") && exists(m_dir / "out/dir/b")) << form.name;
    m_tar.put_MustMatch("");
    EXPECT_FALSE(untarFile(form, m_dir / "out/a")) << form.name;
    EXPECT_TRUE(logHas(m_tar, "Member refused: what is in its place may not be removed."));
    EXPECT_EQ(packed, readFile(m_dir / "out/a"));
    takeTree();
  }
}

TEST_F(Compressed, AbortEndsTheCallAndSparesTheNext) {
  constexpr size_t kSize = 4 << 20, kMost = kSize / 2 + (256 << 10);
  const std::string data = noise(kSize, 4), path = m_dir / "packed";
  writeFile(m_dir / "big", data);
  ASSERT_TRUE(m_tar.AddFile(m_dir / "big"));
  m_tar.put_UncommonOptions("Bz2Framed");
  struct : ProgressEvent {
    void onProgress(int percent, bool& abort) override { abort = percent >= 50; }
  } halfway;
  for (const Form& form : kForms) {
    SCOPED_TRACE(form.name);
    if (form.write) {
      EXPECT_FALSE((m_tar.*form.write)(path, &halfway));
      EXPECT_GT(kMost, fs::file_size(path));
      EXPECT_TRUE((m_tar.*form.write)(path, nullptr)) << logOf(m_tar);
    } else {
      writeFile(path, form.pack(member("big", data) + kEnd));
    }
    EXPECT_FALSE(untarFile(form, path, &halfway));
    EXPECT_TRUE(logHas(m_tar, "Aborted by application.")) << logOf(m_tar);
    EXPECT_GT(kMost, fs::file_size(m_dir / "out/big"));
    EXPECT_LT(kSize / 8, fs::file_size(m_dir / "out/big"));
    EXPECT_TRUE(untarFile(form, path) && data == readFile(m_dir / "out/big")) << logOf(m_tar);
    takeTree();
  }
  // Few bytes that become very many: the question is asked of what comes out, too.
  RecordingEvent asked;
  asked.abortAtQuestion = 1;
  m_tar.put_AbortCheckMs(1);
  m_tar.put_SuppressOutput(true);
  writeFile(path, gzip(member("zeros", std::string(64 << 20, '\0')) + kEnd));
  EXPECT_FALSE(untarFile(kGz, path, &asked));
  EXPECT_EQ(1, asked.questions);
}

// ---- Ours and theirs

TEST_F(Compressed, WrittenFrames) {
  writeFile(m_dir / "src/f", noise(100000, 5) + std::string(100000, 'x'));
  ASSERT_TRUE(m_tar.AddDirRoot(m_dir / "src"));
  LimitedOutput plain, gz, bz2;
  ASSERT_TRUE(m_tar.WriteTar(plain) && m_tar.WriteTarGz(gz) && m_tar.WriteTarBz2(bz2));
  EXPECT_EQ(20000u, plain.largest) << "data come in pieces";
  EXPECT_EQ("\x1F\x8B\x08\0\0\0\0\0\x02\x03"s, gz.bytes.substr(0, 10));
  EXPECT_TRUE(plain.bytes == run({"gzip", "-dc"}, gz.bytes).out);
  EXPECT_TRUE(plain.bytes == run({"bzip2", "-dc"}, bz2.bytes).out);
  // A full output fails wherever it is met: the header, the data, the trailer.
  for (size_t limit = 0; limit < gz.bytes.size(); limit += limit < 20 ? 1 : 4999) {
    LimitedOutput full(limit);
    EXPECT_FALSE(m_tar.WriteTarGz(full)) << limit;
  }
  LimitedOutput noTrailer(gz.bytes.size() - 1), noEnd(bz2.bytes.size() - 1);
  EXPECT_FALSE(m_tar.WriteTarGz(noTrailer) || m_tar.WriteTarBz2(noEnd));
}

// Their sum as signed bytes is 0, as which the letters in the checksum's place read.
TEST_F(Compressed, AreNotTakenForAHeaderByChance) {
  const std::pair<std::string, Compression> kCases[] = {{"\x1F\x8B\x80\xD6", Compression::Gzip},
                                                        {"\x1F\x9D\x80\xC4", Compression::Compress}};
  for (const auto& [start, kind] : kCases) {
    std::string block = start + std::string(512 - start.size(), '\0');
    block.replace(148, 8, "letters!");
    const auto* const bytes = reinterpret_cast<const unsigned char*>(block.data());
    ASSERT_TRUE(hasValidChecksum(bytes));
    EXPECT_TRUE(recogniseArchive(bytes, 512) == kind);
  }
}

TEST_F(Compressed, WhatArrivedBeforeAnExceptionIsOnTheDisk) {
  writeFile(m_dir / "big", noise(300000, 1));
  m_tar.AddFile(m_dir / "big");
  ASSERT_TRUE(m_tar.WriteTarGz(m_dir / "a.tgz"));
  struct : ProgressEvent {
    void onProgress(int percent, bool&) override {
      if (percent >= 40) throw std::runtime_error("enough");
    }
  } event;
  EXPECT_FALSE(m_tar.UntarGz(m_dir / "a.tgz", &event));
  EXPECT_LT(60000u, fs::file_size(m_dir / "out/big"));
}

}  // namespace
}  // namespace morvane::testing

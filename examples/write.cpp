// Writes a directory tree into an archive; the archive's name tells its compression.
//
//   write photos.tar.gz photos
#include <cstdio>
#include <string>

#include "tar/ClsTar.h"

namespace {

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: write ARCHIVE DIRECTORY\n", stderr);
    return 64;
  }
  const std::string archive = argv[1];
  morvane::ClsTar tar;
  // The standard's own form, which holds names of any length and files of any size.
  tar.put_WriteFormat("pax");
  // The archive may lie in the tree, and a file that changes while it is read must not spoil the archive.
  tar.put_UncommonOptions("SkipOutputFile,WriteExactSizes,PaxExact");
  // AddDirRoot looks whether the directory is there; its files are looked at as they are written.
  const bool ok = tar.AddDirRoot(argv[2]) && (endsWith(archive, ".gz")    ? tar.WriteTarGz(archive)
                                              : endsWith(archive, ".bz2") ? tar.WriteTarBz2(archive)
                                                                          : tar.WriteTar(archive));
  if (ok) return 0;
  morvane::XString log;  // of the call that failed: what happened, with paths and the system's reason
  tar.get_LogText(log);
  std::fputs(log.getUtf8(), stderr);
  return 1;
}

// Extracts an archive of any compression, the careful way: for archives that come from somebody else.
//
//   read photos.tar.gz restored
#include <cstdio>

#include "tar/ClsTar.h"
#include "tar/format/ArchiveContent.h"

namespace {

using morvane::Compression;

bool extract(morvane::ClsTar& tar, morvane::_mvFileDataSource& source, Compression compression) {
  switch (compression) {
    case Compression::Gzip:
      return tar.UntarGz(source);
    case Compression::Bzip2:
      return tar.UntarBz2(source);
    case Compression::Compress:
      return tar.UntarZ(source);
    case Compression::None:
      break;
  }
  return tar.Untar(source) >= 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: read ARCHIVE TARGET\n", stderr);
    return 64;
  }
  morvane::_mvFileDataSource source;
  std::optional<Compression> compression;
  morvane::LogNull unwanted;
  if (!source.openDataSourceFile(argv[1], unwanted) ||
      !detectArchive(source, compression, nullptr, unwanted)) {
    std::fprintf(stderr, "read: %s cannot be read\n", argv[1]);
    return 1;
  }
  morvane::ClsTar tar;
  tar.put_UntarFromDir(argv[2]);
  // Nothing outside the target is touched, every record is understood as other tars mean it, an archive that
  // is damaged or cut does not pass for a whole one, and there are limits to what it may cost.
  tar.put_UncommonOptions("Profile=untrusted");
  if (extract(tar, source, compression.value_or(Compression::None))) return 0;
  morvane::XString path, reason;
  tar.get_FailureCause(path, reason);
  std::fprintf(stderr, "read: %s: %s\n", path.isEmpty() ? argv[1] : path.getUtf8(), reason.getUtf8());
  return 1;
}

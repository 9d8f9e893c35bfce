// Extracts an archive of any compression, the careful way: for archives that come from somebody else.
//
//   read photos.tar.gz restored
#include <cstdio>

#include "tar/ClsTar.h"
#include "tar/format/ArchiveKind.h"

namespace {

bool extract(morvane::ClsTar& tar, morvane::_mvFileDataSource& source, morvane::ArchiveKind kind) {
  switch (kind) {
    case morvane::ArchiveKind::Gzip:
      return tar.UntarGz(source);
    case morvane::ArchiveKind::Bzip2:
      return tar.UntarBz2(source);
    case morvane::ArchiveKind::Compress:
      return tar.UntarZ(source);
    default:
      return tar.Untar(source) >= 0;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: read ARCHIVE TARGET\n", stderr);
    return 64;
  }
  morvane::_mvFileDataSource source;
  morvane::ArchiveKind kind = morvane::ArchiveKind::Unknown;
  morvane::LogNull unwanted;
  if (!source.openDataSourceFile(argv[1], unwanted) || !detectArchiveKind(source, kind, nullptr, unwanted)) {
    std::fprintf(stderr, "read: %s cannot be read\n", argv[1]);
    return 1;
  }
  morvane::ClsTar tar;
  tar.put_UntarFromDir(argv[2]);
  // Nothing outside the target is touched, every record is understood as other tars mean it, and an archive
  // that is damaged or cut does not pass for a whole one.
  tar.put_UncommonOptions("Confine=beneath,FullRead,VerifyGzip,GzipAllMembers,Bz2Framed,RequireEndOfArchive");
  if (extract(tar, source, kind)) return 0;
  morvane::XString path, reason;
  tar.get_FailureCause(path, reason);
  std::fprintf(stderr, "read: %s: %s\n", path.isEmpty() ? argv[1] : path.getUtf8(), reason.getUtf8());
  return 1;
}

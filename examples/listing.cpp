// Lists a plain archive: a line for each member, or everything as XML.
//
//   listing photos.tar
//   listing photos.tar --xml
#include <cstdio>
#include <cstring>

#include "tar/ClsTar.h"

namespace {

// Called for each member while the archive is read, so that a list of any length takes no memory. The texts
// are valid during the call only.
class Lister : public morvane::ProgressEvent {
 public:
  void onTarHeader(const morvane::TarMemberInfo& member) override {
    std::printf("%c %04o %12lld %s\n", member.isDirectory ? 'd' : '-', member.mode, member.size, member.path);
  }
};

}  // namespace

int main(int argc, char** argv) {
  const bool xml = argc == 3 && std::strcmp(argv[2], "--xml") == 0;
  if (argc != 2 && !xml) {
    std::fputs("usage: listing ARCHIVE [--xml]\n", stderr);
    return 64;
  }
  morvane::ClsTar tar;
  // Long names and other records are then understood as other tars mean them.
  tar.put_UncommonOptions("FullRead");
  // Data of members are not read in either case: what is listed are headers.
  bool ok;
  if (xml) {
    morvane::XString text;
    ok = tar.ListXml(argv[1], text);
    std::fputs(text.getUtf8(), stdout);  // what was read before a failure, and well-formed all the same
  } else {
    Lister lister;
    ok = tar.VerifyTar(argv[1], &lister);
  }
  if (!ok) std::fprintf(stderr, "listing: %s is damaged, cut or no plain archive\n", argv[1]);
  return ok ? 0 : 1;
}

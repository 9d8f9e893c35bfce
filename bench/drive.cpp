// Runs the library's calls that are measured without mvtar:
//   drive list ARCHIVE          the XML listing, to standard output
//   drive first ARCHIVE NAME    the data of the first member of that name, to standard output
#include <cstdio>
#include <string>

#include "tar/ClsTar.h"

namespace {

// The log is the component's whole account of what went wrong.
int failed(morvane::ClsTar& tar) {
  morvane::XString log;
  tar.get_LogText(log);
  std::fputs(log.getUtf8(), stderr);
  return 1;
}

// Flushed here, because a full disk would otherwise show only behind the status.
int print(const void* bytes, size_t n) {
  return std::fwrite(bytes, 1, n, stdout) == n && std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  // Each job is one call and what it returns: there is nothing else in the time that is measured but the
  // start of a process. The status is 64 for wrong usage and 1 for a failure.
  const std::string job = argc > 2 ? argv[1] : "";
  morvane::ClsTar tar;
  if (job == "list") {
    morvane::XString xml;
    return tar.ListXml(argv[2], xml) ? print(xml.getUtf8(), xml.getSizeUtf8()) : failed(tar);
  }
  if (job == "first" && argc == 4) {
    morvane::ClsBinData found;
    if (!tar.UntarFirstMatchingToBd(argv[2], argv[3], found)) return failed(tar);
    return print(found.data().getData2(), found.data().getSize());
  }
  std::fputs("drive list ARCHIVE | drive first ARCHIVE NAME\n", stderr);
  return 64;
}

// Builds a Debian package from a directory with the file "control" and one with the files to install.
//
//   package control-dir data-dir hello_1.0_all.deb
#include <cstdio>
#include <string>

#include "tar/ClsTar.h"

namespace {

// A tarball as packages have them: owned by root, names below "./". Modes are the object's, not the files': a
// package with maintainer scripts needs put_FileMode(0755) for its control tarball.
bool writeTarball(morvane::ClsTar& tar, const char* dir, const std::string& path) {
  // The object keeps its sources and properties from one call to the next.
  tar.ClearDirRootsAndFiles();
  tar.put_UserId(0);
  tar.put_GroupId(0);
  tar.put_UserName("root");
  tar.put_GroupName("root");
  tar.put_DirPrefix(".");
  return tar.AddDirRoot(dir) && tar.WriteTarGz(path);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: package CONTROL-DIRECTORY DATA-DIRECTORY PACKAGE.deb\n", stderr);
    return 64;
  }
  const std::string package = argv[3];
  // CreateDeb takes tarballs that are there; these two are removed when it has read them.
  const std::string control = package + ".control.tar.gz", data = package + ".data.tar.gz";
  morvane::ClsTar tar;
  const bool ok = writeTarball(tar, argv[1], control) && writeTarball(tar, argv[2], data) &&
                  tar.CreateDeb(control, data, package);
  // The log is of the call that failed, which was the last one.
  if (!ok) {
    morvane::XString log;
    tar.get_LogText(log);
    std::fputs(log.getUtf8(), stderr);
  }
  std::remove(control.c_str());
  std::remove(data.c_str());
  return ok ? 0 : 1;
}

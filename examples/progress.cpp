// Writes an archive, shows how far it is, and gives up when it is told to.
//
//   progress photos.tar.gz photos        # to the end
//   progress photos.tar.gz photos 50     # stops half-way, as after a click on "Cancel"
#include <cstdio>
#include <cstdlib>

#include "tar/ClsTar.h"

namespace {

class Progress : public morvane::ProgressEvent {
 public:
  explicit Progress(int stopAt) : m_stopAt(stopAt) {}

  // A total is counted before the first byte is written; these are its percents, each of which comes once.
  void onProgress(int percent, bool& abort) override {
    std::printf("%d %%\n", percent);
    m_stopped = m_stopped || percent >= m_stopAt;
    abort = m_stopped;
  }
  // Asked far more often; where an application looks whether its user wants to go on.
  void onAbortCheck(bool& abort) override { abort = m_stopped; }
  // Any file or directory can be left out.
  void onTarEntry(const char* path, long long size, bool, bool& skip) override {
    constexpr long long kTooLarge = 1LL << 30;
    skip = size > kTooLarge;
    if (skip) std::printf("left out: %s\n", path);
  }

 private:
  const int m_stopAt;
  bool m_stopped = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fputs("usage: progress ARCHIVE DIRECTORY [STOP-AT-PERCENT]\n", stderr);
    return 64;
  }
  // No percentage is as large.
  constexpr int kNever = 101;
  Progress progress(argc == 4 ? std::atoi(argv[3]) : kNever);
  morvane::ClsTar tar;
  if (tar.AddDirRoot(argv[2]) && tar.WriteTarGz(argv[1], &progress)) return 0;
  morvane::XString path, reason;
  // For a person one line is enough: the path, if there is one, and the reason. An abort is a failure, too.
  tar.get_FailureCause(path, reason);
  std::fprintf(stderr, "progress: %s\n", reason.getUtf8());
  std::remove(argv[1]);  // the part that was written stays until somebody removes it
  return 1;
}

// Replays the fuzzing corpus, and inputs derived from it, without a fuzzing engine.
#include "TestSupport.h"
#include "fuzz/Targets.h"

namespace morvane::testing {
namespace {

class Corpus : public ::testing::TestWithParam<std::string> {};

void runOn(fuzz::Target target, const std::string& bytes) {
  target(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

// Each input as it is, then with some bytes changed, then cut: the seeds are the same in every run.
TEST_P(Corpus, HoldsItsPromises) {
  const fuzz::Target target = fuzz::targets().at(GetParam());
  const std::string folder = std::string(MORVANE_TESTDATA) + "/../../fuzz/corpus/" + GetParam();
  unsigned inputs = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string bytes = readFile(entry.path().string());
    runOn(target, bytes);
    ++inputs;
    std::mt19937 random(inputs);
    for (int round = 0; round < 200 && !bytes.empty(); ++round) {
      std::string changed = bytes.substr(0, round % 4 == 3 ? random() % bytes.size() + 1 : bytes.size());
      for (unsigned i = random() % 4; i-- > 0;)
        changed[random() % changed.size()] = static_cast<char>(random() & 0xFF);
      runOn(target, changed);
    }
  }
  EXPECT_GT(inputs, 0u) << folder;
}

INSTANTIATE_TEST_SUITE_P(All, Corpus,
                         ::testing::Values("header", "pax", "gzipHeader", "lzw", "archive",
                                           "pullAgainstPush"),
                         [](const auto& param) { return param.param; });

}  // namespace
}  // namespace morvane::testing

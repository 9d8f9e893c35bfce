#!/usr/bin/env bash
# Installs what the tests need, builds them in release, with address and undefined-behaviour sanitizers (there with four
# threads for every object) and with the thread sanitizer, runs them all, checks the formatting and runs clang-tidy. The
# last line counts every test of every build.
set -uo pipefail
cd "$(dirname "$0")/.."

packages="g++ cmake ninja-build git zlib1g-dev libbz2-dev libisal-dev libzstd-dev liblzma-dev zstd libgtest-dev libbenchmark-dev clang-format libarchive-tools busybox ncompress
  clang-tidy bzip2 gzip xz-utils python3 libxml2-utils dpkg pkg-config diffutils"
missing=""
for package in $packages; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
done
if [ -n "$missing" ]; then
  echo "installing:$missing"
  apt-get update -qq
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null || exit 1
fi

# The tests make and remove very many small files: in memory where there is room.
shm_free=$(df -Pm /dev/shm 2>/dev/null | awk 'NR == 2 { print $4 }')
[ -n "${TMPDIR:-}" ] || { [ "${shm_free:-0}" -ge 2048 ] && export TMPDIR=/dev/shm; }

passed=0
failed=0
logs=build/test-logs
mkdir -p "$logs"

fail() {
  echo "FAILED: $1"
  failed=$((failed + 1))
}

# Counts what GoogleTest says at the end of each log; a program that ended without saying it has failed.
count() {
  local log=$1 status=$2 done_line failures
  done_line=$(grep -oE '^\[  PASSED  \] [0-9]+ test' "$log" | grep -oE '[0-9]+' | tail -n 1)
  failures=$(grep -cE '^\[  FAILED  \] [^ ]+.*\([0-9]+ ms\)$' "$log")
  passed=$((passed + ${done_line:-0}))
  failed=$((failed + failures))
  if [ "$status" -ne 0 ]; then
    # All that a failed test printed, from its start to its end.
    awk '/^\[ RUN      \]/ { text = "" }
         { text = text $0 "\n" }
         /^\[  FAILED  \] [^ ]+.*\([0-9]+ ms\)$/ { printf "%s", text }' "$log"
    [ "$failures" -gt 0 ] || { tail -n 60 "$log"; fail "$log"; }
  elif [ -z "$done_line" ]; then
    fail "$log ran no test"
  fi
}

# The tests of a build are run in so many parts, because some take a hundred times as long as others: whoever is done
# takes the next part.
export parts=12 logs

# One that hangs is ended after twenty minutes, and its log tells in which test.
run_part() {  # run_part PRESET PART
  GTEST_TOTAL_SHARDS=$parts GTEST_SHARD_INDEX=$2 timeout -k 10 1200 "build/$1/tests/morvane_tests" \
    >"$logs/$1-$2.log" 2>&1 </dev/null
  echo $? >"$logs/$1-$2.status"
}
export -f run_part

run_tests() {  # run_tests PRESET
  local preset=$1 part
  echo "== $preset"
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset"; } >"$logs/$preset-build.log" 2>&1; then
    tail -n 40 "$logs/$preset-build.log"
    fail "build of $preset"
    return
  fi
  rm -f "$logs/$preset"-*.status
  seq 0 $((parts - 1)) | xargs -P "$(nproc)" -n 1 bash -c 'run_part "$0" "$1"' "$preset"
  for part in $(seq 0 $((parts - 1))); do
    count "$logs/$preset-$part.log" "$(cat "$logs/$preset-$part.status" || echo 1)"
  done
}

for preset in release asan tsan; do run_tests "$preset"; done

for script in tests/*_test.sh; do
  [ -e "$script" ] || continue
  echo "== $script"
  if bash "$script" build/release >"$logs/$(basename "$script").log" 2>&1; then
    passed=$((passed + 1))
  else
    tail -n 30 "$logs/$(basename "$script").log"
    fail "$script"
  fi
done

echo "== formatting"
if git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror >"$logs/format.log" 2>&1; then
  passed=$((passed + 1))
else
  head -n 20 "$logs/format.log"
  fail "formatting"
fi

# The checks of .clang-tidy, over what release was built from: its compile commands are used, and its generated header.
echo "== clang-tidy"
if git ls-files 'runtime/*.cpp' 'tar/*.cpp' 'cli/*.cpp' | xargs -P "$(nproc)" -n 4 \
  clang-tidy --quiet -p build/release >"$logs/clang-tidy.log" 2>&1; then
  passed=$((passed + 1))
else
  grep -E '(error|warning): ' "$logs/clang-tidy.log" | sort -u | head -n 20
  fail "clang-tidy"
fi

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]

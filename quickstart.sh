#!/usr/bin/env bash
# Installs what is missing, builds mvtar, and shows the main job on real input: this checkout's own sources.
set -euo pipefail
cd "$(dirname "$0")"

need() {  # need COMMAND PACKAGE, or need /FILE PACKAGE. A name without a slash is never looked for in this folder.
  case $1 in
    /*) [ -e "$1" ] ;;
    *) command -v "$1" >/dev/null 2>&1 ;;
  esac || missing="$missing $2"
}
missing=""
need c++ g++; need cmake cmake; need ninja ninja-build
need /usr/include/zlib.h zlib1g-dev; need /usr/include/bzlib.h libbz2-dev
need /usr/include/zstd.h libzstd-dev; need /usr/include/lzma.h liblzma-dev
if [ -n "$missing" ]; then
  echo "installing:$missing"
  apt-get update -qq
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null
fi

# An accelerator for gzip; everything works without it.
if [ -n "$missing" ] && [ ! -e /usr/include/isa-l/igzip_lib.h ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends libisal-dev >/dev/null 2>&1 || true
fi

build=build/quickstart
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" --target mvtar | tail -n 1
mvtar=$PWD/$build/cli/mvtar

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
files=$(find runtime tar cli -type f | wc -l)
echo "archiving runtime/, tar/ and cli/: $files files"
for form in gnu.tar ustar.tar pax.tar gnu.tar.gz pax.tar.bz2 gnu.tar.zst pax.tar.xz; do
  archive=$scratch/sources.$form
  "$mvtar" -c -f "$archive" --format="${form%%.*}" runtime tar cli
  "$mvtar" --verify -f "$archive" >/dev/null
  members=$("$mvtar" -t -f "$archive" | wc -l)
  "$mvtar" -x -f "$archive" -C "$scratch/restored"
  for dir in runtime tar cli; do diff -r "$dir" "$scratch/restored/$dir"; done
  rm -rf "$scratch/restored"
  echo "  ${form}: $(stat -c %s "$archive") bytes, $members members; verified, extracted and equal to what went in"
done
echo "mvtar is $mvtar"

#!/usr/bin/env bash
# Uses the library the way applications and packagers do: installs it static and shared into staging folders, moves
# those, and builds the examples against them with CMake and pkg-config, and once more as a part of another project.
# Then the headers, the exported names, and the pages and completions of mvtar.
#
# Everything is built here; the finished build that test scripts are given is not needed.
set -euo pipefail
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
unset CFLAGS CXXFLAGS CPPFLAGS LDFLAGS DESTDIR CMAKE_PREFIX_PATH CPATH CPLUS_INCLUDE_PATH LIBRARY_PATH \
  LD_LIBRARY_PATH PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR
export LC_ALL=C CMAKE_GENERATOR=Ninja
cxx=${CXX:-c++}
strict="-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Werror"

fail() {
  echo "FAILED: $1"
  exit 1
}

step() { echo "== $1"; }

quietly() {  # quietly COMMAND...: its output is shown only when it fails
  "$@" >"$work/out.log" 2>&1 || { tail -n 40 "$work/out.log"; fail "$*"; }
}

expect() {  # expect WHAT ACTUAL EXPECTED
  [ "$2" = "$3" ] || fail "$1 is '$2' and not '$3'"
}

version=$(sed -n 's/^project(morvane_tar VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
[ -n "$version" ] || fail "no version in CMakeLists.txt"

mkdir -p tree/sub control
echo one >tree/one
head -c 300000 /dev/urandom >tree/sub/random
printf 'Package: hello\nVersion: 1.0\nArchitecture: all\nMaintainer: A <a@example.org>\nDescription: hello\n' \
  >control/control

# Runs the examples in a folder and looks at what they make.
run_examples() {
  local bin=$1 archive status
  for archive in a.tar a.tar.gz a.tar.bz2; do
    rm -rf made restored
    mkdir made
    quietly "$bin/write" "made/$archive" tree
    quietly "$bin/read" "made/$archive" restored
    quietly diff -r tree restored
  done
  quietly "$bin/write" made/a.tar tree
  "$bin/listing" made/a.tar >made/list
  expect "the listing" "$(awk '{print $NF}' made/list | tr '\n' ' ')" "one sub/ sub/random "
  "$bin/listing" made/a.tar --xml >made/list.xml
  quietly xmllint --noout made/list.xml
  "$bin/progress" made/p.tar.gz tree >made/percent
  expect "the last percentage" "$(tail -n 1 made/percent)" "100 %"
  status=0
  "$bin/progress" made/aborted.tar.gz tree 30 >made/percent 2>made/errors || status=$?
  expect "the status of an aborted write" "$status" 1
  grep -q aborted made/errors || fail "an aborted write does not say so"
  [ ! -e made/aborted.tar.gz ] || fail "an aborted write leaves its archive"
  quietly "$bin/package" control tree made/hello.deb
  expect "the package" "$(dpkg-deb --field made/hello.deb Package)" hello
  expect "the package's files" "$(dpkg-deb --contents made/hello.deb | awk '{print $NF}' | tr '\n' ' ')" \
    "./one ./sub/ ./sub/random "
}

# The example read.cpp, compiled without CMake.
with_pkg_config() {  # with_pkg_config STAGE LIBDIR [--static]
  local stage=$1 libdir=$2 flags
  export PKG_CONFIG_LIBDIR=$stage/$libdir/pkgconfig
  expect "the package's version" "$(pkg-config --modversion morvane_tar)" "$version"
  flags=$(pkg-config ${3:+"$3"} --cflags --libs morvane_tar)
  unset PKG_CONFIG_LIBDIR
  case $flags in */nowhere/*) fail "the .pc file holds the configured prefix: $flags" ;; esac
  mkdir -p pc
  # shellcheck disable=SC2086
  quietly "$cxx" -std=c++17 $strict examples/read.cpp -o pc/read $flags
  rm -rf restored
  LD_LIBRARY_PATH=$stage/$libdir quietly pc/read made/a.tar restored
  quietly diff -r tree restored
}

cp -r "$source/examples" examples

# Where distributions with several architectures put libraries: one level deeper.
multiarch=$("$cxx" -print-multiarch 2>/dev/null) || multiarch=""
deeper=lib/$multiarch
[ -n "$multiarch" ] || deeper=lib64

for kind in static shared; do
  step "$kind: build and install"
  if [ $kind = static ]; then shared=OFF libdir=lib; else shared=ON libdir=$deeper; fi
  # The command is built once, against the library that hides what is not for it.
  quietly cmake -S "$source" -B build-$kind -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=$shared -DBUILD_TESTING=OFF \
    -DMORVANE_TAR_CLI=$shared -DCMAKE_INSTALL_PREFIX=/nowhere/prefix -DCMAKE_INSTALL_LIBDIR=$libdir \
    -DCMAKE_CXX_COMPILER="$cxx"
  quietly cmake --build build-$kind -j 2
  quietly cmake --install build-$kind --prefix "$work/first-$kind" --component Runtime
  if [ $kind = shared ]; then
    [ -e first-shared/$libdir/libmorvane_tar.so.1 ] || fail "Runtime lacks libmorvane_tar.so.1"
    [ ! -e first-shared/$libdir/libmorvane_tar.so ] || fail "Runtime holds the link for compilers"
  fi
  [ ! -e first-$kind/include ] || fail "Runtime holds headers"
  quietly cmake --install build-$kind --prefix "$work/first-$kind" --component Development
  quietly cmake --install build-$kind --prefix "$work/all-$kind"
  quietly diff -r first-$kind all-$kind
  mv first-$kind moved-$kind
  rm -rf all-$kind
  stage=$work/moved-$kind

  step "$kind: find_package"
  # Who links the shared library needs no codec of its own.
  without=()
  [ $kind = static ] || without=(-DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON -DCMAKE_DISABLE_FIND_PACKAGE_BZip2=ON)
  quietly cmake -S examples -B examples-$kind -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_CXX_FLAGS="$strict" \
    -DCMAKE_CXX_COMPILER="$cxx" "${without[@]}"
  quietly cmake --build examples-$kind -j 2
  run_examples "$work/examples-$kind"

  step "$kind: pkg-config"
  if [ $kind = static ]; then with_pkg_config "$stage" $libdir --static; else with_pkg_config "$stage" $libdir; fi
done

step "add_subdirectory"
mkdir consumer
cat >consumer/CMakeLists.txt <<END
cmake_minimum_required(VERSION 3.21)
project(consumer LANGUAGES CXX)
set(MORVANE_TAR_EXAMPLES ON)
add_subdirectory($source morvane_tar)
foreach(target morvane_tests mvtar)
  if(TARGET \${target})
    message(FATAL_ERROR "\${target} is built as a part of another project")
  endif()
endforeach()
get_target_property(options morvane_tar_objects COMPILE_OPTIONS)
if("-Werror" IN_LIST options)
  message(FATAL_ERROR "warnings are errors in another project")
endif()
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE morvane::tar)
END
cat >consumer/main.cpp <<'END'
#include "tar/ClsTar.h"
int main() {
  morvane::DataBuffer empty;
  return morvane::ClsTar().UntarFromMemory(empty) == -1 ? 0 : 1;
}
END
quietly cmake -S consumer -B consumer-build -DCMAKE_CXX_COMPILER="$cxx"
quietly cmake --build consumer-build -j 2
quietly consumer-build/consumer
run_examples "$work/consumer-build/morvane_tar/examples"

step "headers"
mkdir headers
(cd moved-static/include/morvane && find . -name '*.h' | sed 's|^\./||') | sort >headers/list
grep -qx tar/ClsTar.h headers/list || fail "tar/ClsTar.h is not installed"
compile_alone() {
  local name=${1//\//_}
  printf '#include "%s"\n#include "%s"\n' "$1" "$1" >"headers/$name.cpp"
  # shellcheck disable=SC2086
  "$cxx" -std=c++17 $strict -fsyntax-only -MD -MF "headers/$name.d" -I moved-static/include/morvane "headers/$name.cpp"
}
export -f compile_alone
export cxx strict
quietly xargs -P 2 -I '{}' bash -c 'compile_alone {}' <headers/list
if grep -lE '/(zlib|zconf|bzlib|igzip_lib)\.h' headers/*.d; then fail "a codec's header is reachable from ours"; fi
if cat headers/*.d | tr ' ' '\n' | grep -F "$source/"; then fail "a header includes what is not installed"; fi

step "exported names"
library=moved-shared/$deeper/libmorvane_tar.so.1
nm -DC --defined-only $library | cut -d ' ' -f 3- >exported
grep -q '^morvane::ClsTar::WriteTar(' exported || fail "ClsTar is not exported"
foreign=$(grep -vE '^((typeinfo|typeinfo name|vtable|VTT) for |(non-virtual|virtual|covariant return) thunk to )?morvane::' \
  exported || true)
expect "the list of foreign names" "$foreign" ""
expect "the soname" "$(objdump -p $library | awk '$1 == "SONAME" {print $2}')" libmorvane_tar.so.1

step "mvtar, its pages and completions"
mvtar=moved-shared/bin/mvtar  # finds the library by itself
expect "mvtar --version" "$($mvtar --version)" "mvtar $version"
page=moved-shared/share/man/man1/mvtar.1
grep -q "\"mvtar $version\"" $page || fail "the manual page is of another version"
if command -v groff >/dev/null; then
  expect "what groff says of the manual page" "$(groff -man -Tutf8 -ww $page 2>&1 >/dev/null)" ""
fi
bash_completion=moved-shared/share/bash-completion/completions/mvtar
zsh_completion=moved-shared/share/zsh/site-functions/_mvtar
quietly bash -n $bash_completion
sed 's/\\-/-/g' $page >page.txt
long_options() { grep -oE '(^|[^-a-zA-Z])--[a-z][-a-z0-9]+' "$1" | sed 's/^[^-]*//' | sort -u; }
$mvtar --help >help.txt
for option in $(long_options help.txt); do
  for file in page.txt $bash_completion $zsh_completion; do
    grep -qE -e "(^|[^-a-zA-Z])$option([^-a-z]|$)" "$file" || fail "$option is missing in $file"
  done
done
for file in page.txt $bash_completion $zsh_completion; do
  for option in $(long_options "$file"); do
    if $mvtar "$option=x" 2>&1 | grep -q 'unknown option'; then fail "$file has $option, which mvtar does not know"; fi
  done
done
# Every option word that the code knows is described and completed.
words=$(sed -n 's/.*{"\([a-z0-9]*\)", &TarOptions::.*/\1/p; s/.*word == "\([a-z0-9]*\)".*/\1/p' \
  "$source/tar/TarOptions.cpp")
[ "$(echo "$words" | wc -l)" -ge 17 ] || fail "the option words were not found in the code"
for word in $words; do
  grep -qiE "^## \`?$word\b" "$source/docs/options.md" || fail "docs/options.md does not describe $word"
  grep -qiw "$word" $bash_completion || fail "$word is not completed by bash"
  grep -qiw "$word" $zsh_completion || fail "$word is not completed by zsh"
done
for page in README.md docs/format.md docs/options.md docs/architecture.md LICENSE; do
  [ -s moved-shared/share/doc/morvane_tar/$page ] || fail "$page is not installed"
done
# A page that is referred to is there.
cd moved-shared/share/doc/morvane_tar
for page in *.md docs/*.md; do
  for link in $(grep -oE '\]\([^)#:]+' "$page" | sed 's/^](//'); do
    [ -e "$(dirname "$page")/$link" ] || fail "$page refers to $link, which is not there"
  done
done
echo "all done"

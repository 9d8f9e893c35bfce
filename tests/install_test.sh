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
  local bin=$1 archive
  rm -rf made
  mkdir made
  for archive in a.tar a.tar.gz a.tar.bz2; do
    quietly "$bin/write" "made/$archive" tree
    quietly "$bin/read" "made/$archive" "made/$archive.out"
    quietly diff -r tree "made/$archive.out"
  done
  expect "the listing" "$("$bin/listing" made/a.tar | awk '{print $NF}' | xargs)" "one sub/ sub/random"
  "$bin/listing" made/a.tar --xml | quietly xmllint --noout -
  expect "the last percentage" "$("$bin/progress" made/p.tar.gz tree | tail -n 1)" "100 %"
  if "$bin/progress" made/aborted.tar.gz tree 30 >made/said 2>&1; then fail "an aborted write succeeds"; fi
  grep -q aborted made/said || fail "an aborted write does not say so"
  [ ! -e made/aborted.tar.gz ] || fail "an aborted write leaves its archive"
  quietly "$bin/package" control tree made/hello.deb
  expect "the package's files" "$(dpkg-deb --contents made/hello.deb | awk '{print $NF}' | xargs)" \
    "./one ./sub/ ./sub/random"
}

# Where distributions with several architectures put libraries: one level deeper.
deeper=lib/$("$cxx" -print-multiarch 2>/dev/null || echo nowhere)

for kind in static shared; do
  step "$kind: build and install"
  stage=$work/moved-$kind
  # Who links the shared library needs no codec of its own.
  if [ $kind = static ]; then
    shared=OFF libdir=lib without=()
  else
    shared=ON libdir=$deeper without=(-DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON -DCMAKE_DISABLE_FIND_PACKAGE_BZip2=ON)
  fi
  # The command is built once, against the library that hides what is not for it.
  quietly cmake -S "$source" -B build-$kind -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=$shared -DBUILD_TESTING=OFF \
    -DMORVANE_TAR_CLI=$shared -DCMAKE_INSTALL_PREFIX=/nowhere/prefix -DCMAKE_INSTALL_LIBDIR="$libdir" \
    -DCMAKE_CXX_COMPILER="$cxx"
  quietly cmake --build build-$kind -j 2
  quietly cmake --install build-$kind --prefix "$work/first" --component Runtime
  expect "what Runtime holds for compilers" "$(find first -name '*.so' -o -name '*.h' -o -name '*.a')" ""
  quietly cmake --install build-$kind --prefix "$work/first" --component Development
  quietly cmake --install build-$kind --prefix "$work/all"
  quietly diff -r first all
  mv first "$stage"
  rm -r all

  step "$kind: find_package"
  quietly cmake -S "$source/examples" -B examples-$kind -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_CXX_FLAGS="$strict" \
    -DCMAKE_CXX_COMPILER="$cxx" "${without[@]}"
  quietly cmake --build examples-$kind -j 2
  run_examples "$work/examples-$kind"

  step "$kind: pkg-config"
  pkg_config() { PKG_CONFIG_LIBDIR=$stage/$libdir/pkgconfig pkg-config "$@" morvane_tar; }
  expect "the package's version" "$(pkg_config --modversion)" "$version"
  # shellcheck disable=SC2046,SC2086
  quietly "$cxx" -std=c++17 $strict "$source/examples/read.cpp" -o pc-read $(pkg_config --cflags --libs)
  LD_LIBRARY_PATH=$stage/$libdir quietly ./pc-read made/a.tar made/pc.out
  quietly diff -r tree made/pc.out
done

step "add_subdirectory"
mkdir consumer
cat >consumer/CMakeLists.txt <<END
cmake_minimum_required(VERSION 3.21)
project(consumer LANGUAGES CXX)
set(MORVANE_TAR_EXAMPLES ON)
add_subdirectory($source morvane_tar)
END
quietly cmake -S consumer -B consumer-build -DCMAKE_CXX_COMPILER="$cxx"
for ours in -Werror morvane_tests mvtar; do
  if grep -q -e "$ours" consumer-build/build.ninja; then fail "$ours is a part of another project's build"; fi
done
quietly cmake --build consumer-build -j 2
run_examples "$work/consumer-build/morvane_tar/examples"

step "headers"
include=moved-static/include/morvane
[ -e $include/tar/ClsTar.h ] || fail "tar/ClsTar.h is not installed"
for header in $(cd $include && find . -name '*.h'); do
  printf '#include "%s"\n' "$header" "$header" >twice.cpp
  # shellcheck disable=SC2086
  quietly "$cxx" -std=c++17 $strict -fsyntax-only -MD -MF included -I $include twice.cpp
  if grep -F -e /zlib.h -e /zconf.h -e /bzlib.h -e /igzip_lib.h -e "$source/" included; then
    fail "$header includes what is a codec's, or not installed"
  fi
done

step "exported names"
library=moved-shared/$deeper/libmorvane_tar.so.1
nm -DC --defined-only $library | cut -d ' ' -f 3- >exported
grep -q '^morvane::ClsTar::WriteTar(' exported || fail "ClsTar is not exported"
foreign=$(grep -vE '^((typeinfo|typeinfo name|vtable|VTT) for |(non-virtual|virtual|covariant return) thunk to )?morvane::' \
  exported || true)
expect "the list of foreign names" "$foreign" ""
expect "the soname" "$(objdump -p $library | awk '$1 == "SONAME" {print $2}')" libmorvane_tar.so.1

step "mvtar, its pages and completions"
mvtar=moved-shared/bin/mvtar share=moved-shared/share  # it finds the library by itself
expect "mvtar --version" "$($mvtar --version)" "mvtar $version"
grep -q "\"mvtar $version\"" $share/man/man1/mvtar.1 || fail "the manual page is of another version"
sed 's/\\-/-/g' $share/man/man1/mvtar.1 >page.txt
for file in bash-completion/completions/mvtar zsh/site-functions/_mvtar fish/vendor_completions.d/mvtar.fish; do
  [ -s $share/$file ] || fail "$file is not installed"
done
# The manual page has every option of the command's own table, with its letter and what it takes, and no other.
$mvtar --help=options >options.txt
cut -f 1-4 options.txt | tr '\t' '|' | while IFS='|' read -r letter name takes _; do
  [ -z "$letter" ] || grep -qE -e "(^|[^-a-zA-Z])$letter([^-a-zA-Z]|$)" page.txt || fail "$letter is not in the manual page"
  grep -qE -e "(^|[^-a-zA-Z])$name([^-a-z]|$)" page.txt || fail "$name is not in the manual page"
  [ "$takes" != "=" ] || grep -qE -e "$name(=| |\\\\f)" page.txt || fail "$name takes a value, which the manual page does not say"
done
for option in $(sed '/^\.SS Not offered/,/^\.SH/d' page.txt | grep -oE '(^|[^-a-zA-Z])--[a-z][-a-z0-9]+' | sed 's/^[^-]*//' | sort -u); do
  said=$($mvtar "$option=x" 2>&1 || true)
  if grep -q 'unknown option' <<< "$said"; then fail "the manual page has $option, which mvtar does not know"; fi
done
for option in $(sed -n '/^\.SS Not offered/,/^\.SH/p' page.txt | grep -oE '[ "]--[-a-z]+' | cut -c 2-); do
  said=$($mvtar "$option" 2>&1 || true)
  grep -q 'unknown option' <<< "$said" || fail "the manual page says that mvtar does not have $option"
done
# Every option word is understood and described. What has a value of its own choice may also be "off".
$mvtar --help=words | sed 's/  .*//' >words.txt
[ "$(wc -l <words.txt)" -ge 40 ] || fail "mvtar does not list the option words"
while read -r word; do
  $mvtar -tf none.tar --options="${word/%=/=off}" 2>/dev/null && status=0 || status=$?
  expect "listing a missing archive with the word $word" $status 2
  grep -qiE "^(## |A profile).*\b${word%%=*}\b" "$source/docs/options.md" || fail "docs/options.md does not describe $word"
done <words.txt
# A page that is referred to is there.
cd $share/doc/morvane_tar
for page in README.md docs/format.md docs/options.md docs/architecture.md LICENSE; do
  [ -s $page ] || fail "$page is not installed"
  for link in $(grep -oE '\]\([^)#:]+' "$page" | sed 's/^](//'); do
    [ -e "$(dirname "$page")/$link" ] || fail "$page refers to $link, which is not there"
  done
done
echo "all done"

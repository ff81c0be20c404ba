#!/usr/bin/env bash
# Builds the libraries that Debian ships for Linux only (fmt, spdlog, TinyXML,
# GoogleTest) for Windows x64 with MinGW-w64, from Debian's own source
# packages (apt-get source, Debian's patches applied), into a prefix:
#
#   scripts/windows-deps.sh <dir>     sources in <dir>/src, prefix <dir>/prefix
#
# Asio is header-only: its Debian headers are linked into the prefix. A
# library whose stamp matches this script is not built again, so a second run
# costs nothing. Needs the packages of `scripts/install-deps.sh --windows`.
set -euo pipefail

DIR="$(mkdir -p "${1:?usage: windows-deps.sh DIR}" && cd "$1" && pwd)"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
SRC="$DIR/src"
PREFIX="$DIR/prefix"
JOBS="${JOBS:-2}"
TOOLCHAIN="$ROOT/cmake/mingw-w64-x86_64.cmake"
CXX=x86_64-w64-mingw32-g++-posix
AR=x86_64-w64-mingw32-ar
# A changed recipe builds everything again.
RECIPE="$(sha256sum "${BASH_SOURCE[0]}" "$TOOLCHAIN" | sha256sum | cut -c1-16)"
mkdir -p "$SRC" "$PREFIX/include" "$PREFIX/lib/pkgconfig"

say() { printf 'windows-deps: %s\n' "$*"; }

# Unpacks Debian's source package into $SRC/<package> (patches applied).
fetch() {
  local package="$1"
  rm -rf "${SRC:?}/$package" "$SRC/$package".download
  mkdir -p "$SRC/$package".download
  (cd "$SRC/$package".download && apt-get source -q --download-only "$package" >/dev/null 2>&1) || {
    say "apt-get source $package failed: is there a deb-src entry? (scripts/install-deps.sh --windows adds one)" >&2
    return 1
  }
  dpkg-source -q -x --no-check "$SRC/$package".download/*.dsc "$SRC/$package" >/dev/null
  rm -rf "$SRC/$package".download
}

built() { [ "$(cat "$PREFIX/.stamp-$1" 2>/dev/null)" = "$RECIPE" ]; }
mark() { echo "$RECIPE" >"$PREFIX/.stamp-$1"; }

cmake_build() {
  local package="$1"
  shift
  cmake -S "$SRC/$package" -B "$SRC/$package/_build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DQORVARLOK_WINDOWS_DEPS="$PREFIX" \
    -DCMAKE_INSTALL_PREFIX="$PREFIX" -DBUILD_SHARED_LIBS=OFF "$@" >"$SRC/$package.log" 2>&1
  cmake --build "$SRC/$package/_build" -j"$JOBS" >>"$SRC/$package.log" 2>&1
  cmake --install "$SRC/$package/_build" >>"$SRC/$package.log" 2>&1
}

build_fmtlib() {
  cmake_build fmtlib -DFMT_TEST=OFF -DFMT_DOC=OFF
}

# Built as the Linux package is: against the external fmt, as a compiled library.
build_spdlog() {
  cmake_build spdlog -DSPDLOG_FMT_EXTERNAL=ON -DSPDLOG_BUILD_SHARED=OFF -DSPDLOG_BUILD_EXAMPLE=OFF \
    -DSPDLOG_BUILD_TESTS=OFF -DSPDLOG_BUILD_BENCH=OFF
}

build_googletest() {
  cmake_build googletest -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON  # the tests use no mocks
}

# No build system of its own: compiled the way debian/rules does, with
# TIXML_USE_STL, which Debian's headers force.
build_tinyxml() {
  local s="$SRC/tinyxml"
  (cd "$s" && for f in tinyxml tinyxmlparser tinyxmlerror tinystr; do
     [ -f "$f.cpp" ] && "$CXX" -O2 -DTIXML_USE_STL -c "$f.cpp" -o "$f.o"
   done && rm -f libtinyxml.a && "$AR" rc libtinyxml.a ./*.o) >"$SRC/tinyxml.log" 2>&1
  install -m 644 "$s/libtinyxml.a" "$PREFIX/lib/"
  install -m 644 "$s/tinyxml.h" "$PREFIX/include/"
  cat >"$PREFIX/lib/pkgconfig/tinyxml.pc" <<PC
prefix=$PREFIX
Name: TinyXml
Description: simple, small, C++ XML parser (Windows build)
Version: 2.6.2
Libs: -L\${prefix}/lib -ltinyxml
Cflags: -I\${prefix}/include -DTIXML_USE_STL
PC
}

for package in fmtlib spdlog googletest tinyxml; do
  if built "$package"; then
    say "$package: built already"
    continue
  fi
  start=$SECONDS
  say "$package: apt-get source and build"
  fetch "$package"
  if ! "build_$package"; then
    say "$package: build failed, see $SRC/$package.log" >&2
    tail -n 30 "$SRC/$package.log" >&2 || true
    exit 1
  fi
  mark "$package"
  say "$package: done in $((SECONDS - start)) s"
done

# Asio: header-only; Debian's headers serve every platform.
ln -sfn /usr/include/asio "$PREFIX/include/asio"
ln -sfn /usr/include/asio.hpp "$PREFIX/include/asio.hpp"

#!/usr/bin/env bash
# Installs what the build and the tests need on Debian 12, and nothing that
# is already there: the Debian packages below (apt-get update only when one
# is missing) and the zh_CN.GBK locale, which tests of the GBK texts use.
# With --bench also what scripts/bench.sh needs for its page and nothing
# else does (gnuplot draws the plot, python3 writes the page), so the test
# command does not install them.
# Needs root, or sudo, only when something is missing.
#
#   install-deps.sh            what the demo and the Linux build need
#   install-deps.sh --bench    also what scripts/bench.sh needs
#   install-deps.sh --windows  also the Windows cross build and Wine, and a
#                              deb-src entry so that scripts/windows-deps.sh
#                              can fetch Debian's sources of the libraries
set -euo pipefail

WINDOWS=0
BENCH=0
for arg in "$@"; do
  case "$arg" in
    --windows) WINDOWS=1 ;;
    --bench) BENCH=1 ;;
    *) echo "install-deps: unknown argument '$arg'" >&2; exit 2 ;;
  esac
done

PACKAGES=(
  build-essential cmake pkg-config
  libspdlog-dev libfmt-dev libtinyxml-dev libasio-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  libmodbus-dev
  locales
  swig mono-mcs mono-runtime
  python3-dev python3-pytest
)
# The Windows stage of the suite: MinGW-w64 (posix threads, for std::thread
# and std::mutex), Wine to run what it builds, dpkg-dev for apt-get source,
# Ninja for the dependencies' builds.
WINDOWS_PACKAGES=(
  g++-mingw-w64-x86-64-posix wine wine64 dpkg-dev ninja-build
)
if [ "$WINDOWS" -eq 1 ]; then
  PACKAGES+=("${WINDOWS_PACKAGES[@]}")
fi
if [ "$BENCH" -eq 1 ]; then
  PACKAGES+=(gnuplot-nox python3)
fi

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null 2>&1; then
    sudo "$@"
  else
    echo "install-deps: need root to run: $*" >&2
    return 1
  fi
}

# apt-get source needs a deb-src entry for the archive the binaries come
# from; made once from the machine's own deb entries.
SOURCES_LIST=/etc/apt/sources.list.d/debian.sources
SOURCES_SRC=/etc/apt/sources.list.d/qorvarlok-deb-src.sources
need_update=0
if [ "$WINDOWS" -eq 1 ] && [ -f "$SOURCES_LIST" ] && [ ! -f "$SOURCES_SRC" ] &&
   ! grep -qs '^Types:.*deb-src' "$SOURCES_LIST"; then
  echo "install-deps: adding deb-src entries ($SOURCES_SRC)"
  sed 's/^Types: deb$/Types: deb-src/' "$SOURCES_LIST" | as_root tee "$SOURCES_SRC" >/dev/null
  need_update=1
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -gt 0 ] || [ "$need_update" -eq 1 ]; then
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q
fi
if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null
fi

# locale -a prints the normalised name: zh_CN.gbk
if ! locale -a 2>/dev/null | grep -qix 'zh_CN\.gbk'; then
  echo "install-deps: generating the zh_CN.GBK locale"
  as_root localedef -i zh_CN -f GBK zh_CN.GBK
fi

#!/usr/bin/env bash
# Installs what the build and the tests need on Debian 12, and nothing that
# is already there: the Debian packages below (apt-get update only when one
# is missing) and the zh_CN.GBK locale, which tests of the GBK texts use.
# With --bench also what scripts/bench.sh needs for its page and nothing
# else does (gnuplot draws the plot, python3 writes the page), so the test
# command does not install them.
# Needs root, or sudo, only when something is missing.
set -euo pipefail

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
if [ "${1:-}" = "--bench" ]; then
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

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null
fi

# locale -a prints the normalised name: zh_CN.gbk
if ! locale -a 2>/dev/null | grep -qix 'zh_CN\.gbk'; then
  echo "install-deps: generating the zh_CN.GBK locale"
  as_root localedef -i zh_CN -f GBK zh_CN.GBK
fi

#!/usr/bin/env bash
# Installs the Debian packages that the project needs and that are not there yet.
#   bootstrap.sh            to build and run
#   bootstrap.sh windows    to build for Windows and test that under wine as well
#   bootstrap.sh all        to test everything and measure as well
#   bootstrap.sh coverage   to see as well what the tests reach
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config libcli11-dev nlohmann-json3-dev libedit-dev)
what=${1:-}
if [[ $what == windows || $what == all ]]; then
  packages+=(g++-mingw-w64-x86-64-posix lld googletest wine wine64 python3 python3-numpy)
fi
if [[ $what == all || $what == coverage ]]; then
  packages+=(libgtest-dev libgmock-dev libbenchmark-dev python3 python3-numpy
    git clang clang-format clang-tidy libclang-rt-dev libomp-dev)
fi
if [[ $what == coverage ]]; then
  packages+=(llvm)
fi

fail() {
  echo "bootstrap: $*" >&2
  exit 1
}

if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
  fail "this is no Debian-like system; install by hand what matches: ${packages[*]}"
fi

# Names that installed packages have or stand in for, as pkgconf does for pkg-config.
present=$(dpkg-query -W -f '${db:Status-Status} ${Package}, ${Provides}\n' |
  sed -n 's/^installed //p' | sed 's/ ([^)]*)//g' | tr ', ' '\n\n')
missing=()
for package in "${packages[@]}"; do
  grep -qxF -- "$package" <<<"$present" || missing+=("$package")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || fail "neither root nor sudo; as root: apt-get install ${missing[*]}"
  as_root=(sudo)
fi
echo "bootstrap: installing ${missing[*]}"
apt=(env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
"${as_root[@]}" "${apt[@]}" update || fail "apt-get update failed"
"${as_root[@]}" "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null ||
  fail "apt-get could not install ${missing[*]}"

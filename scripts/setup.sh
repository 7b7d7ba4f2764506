#!/usr/bin/env bash
# Installs what is missing on a Debian machine, by package name; does nothing when all is there.
# Usage: scripts/setup.sh [build] [bench] [lint] [fuzz] [docs]    (default: build)
set -euo pipefail

declare -A packages=(
  [build]="g++ cmake ninja-build pkg-config libssl-dev zlib1g-dev liblzo2-dev libdeflate-dev libcurl4-openssl-dev
           libsqlite3-dev libjansson-dev libboost-dev libgtest-dev libgmock-dev
           iproute2 jq microsocks nginx-light openssl python3 sqlite3 strace"
  [bench]="libbenchmark-dev nettle-dev libglib2.0-dev libinih-dev libabsl-dev libmimalloc2.0 libspdlog-dev
           libpoco-dev python3"
  [lint]="clang-format clang-tidy"
  [fuzz]="clang libclang-rt-14-dev"
  [docs]="doxygen"
)

wanted=()
for group in "${@:-build}"; do
  [ -n "${packages[$group]:-}" ] || { echo "setup.sh: no such group: $group" >&2; exit 2; }
  # shellcheck disable=SC2206
  wanted+=(${packages[$group]})
done

missing=()
for package in "${wanted[@]}"; do
  dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
    missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

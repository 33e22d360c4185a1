#!/usr/bin/env bash
# bench.sh - builds vael-bench in Release (the `bench` preset) and runs it,
# ending with one summary table: per literal set, the Thin NFA's compile time
# and BNFA size, the throughput of vael_pm_exec_ex and of the raw engine, and
# the same figures for a full-table Aho-Corasick and Vectorscan, with whether
# every engine reported the same matches (the run stops before timing if not).
#
# Works on a fresh Debian 12: installs whatever of its packages is missing.
# Vectorscan is optional; without it those columns read n/a. Arguments are
# passed on to vael-bench, e.g. scripts/bench.sh --benchmark_filter=/10000
set -euo pipefail

cd "$(dirname "$0")/.."

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null 2>&1; then
    sudo "$@"
  else
    echo "bench.sh: need root (or sudo) to install: $*" >&2
    return 1
  fi
}

missing=()
for pkg in cmake g++ libbenchmark-dev pkg-config libvectorscan-dev; do
  dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "bench.sh: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  as_root apt-get update -q
  required=()
  for pkg in "${missing[@]}"; do
    [ "$pkg" = libvectorscan-dev ] || required+=("$pkg")
  done
  if [ ${#required[@]} -gt 0 ]; then
    as_root apt-get install -y -q "${required[@]}"
  fi
  # Vectorscan is not built for every architecture; the benchmark runs without it.
  if [[ " ${missing[*]} " == *" libvectorscan-dev "* ]]; then
    as_root apt-get install -y -q libvectorscan-dev ||
      echo "bench.sh: libvectorscan-dev not installable here; Vectorscan columns will be n/a" >&2
  fi
fi

cmake --preset bench
cmake --build --preset bench -j"$(nproc)" --target vael-bench

exec build/bench/bench/vael-bench --summary "$@"

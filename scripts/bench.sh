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

# shellcheck source=scripts/common.sh
. scripts/common.sh
install_missing cmake g++ make pkg-config libbenchmark-dev
# Vectorscan is not built for every architecture; the benchmark runs without it.
install_missing libvectorscan-dev ||
  echo "bench.sh: libvectorscan-dev not installable here; Vectorscan columns will be n/a" >&2

cmake --preset bench
cmake --build --preset bench -j"$(nproc)" --target vael-bench

exec build/bench/bench/vael-bench --summary "$@"

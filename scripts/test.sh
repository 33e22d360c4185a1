#!/usr/bin/env bash
# test.sh - builds everything and runs the whole test suite twice: with the
# `default` preset (optimised, with debug info) and with the `asan` preset
# (AddressSanitizer and UndefinedBehaviorSanitizer). Then builds only the
# threading tests' program with the `tsan` preset (ThreadSanitizer) and runs
# it, which keeps that pass short. Stops at the first failure with a
# non-zero status.
#
# Works on a fresh Debian 12 as root (or with sudo): installs whatever of the
# build packages is missing first. Runs from any current directory.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# shellcheck source=scripts/common.sh
. scripts/common.sh

install_missing "${BUILD_PACKAGES[@]}"

jobs="$(nproc)"
for preset in default asan; do
  echo "==> preset $preset: configure, build, test"
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j"$jobs"
  ctest --preset "$preset" -j"$jobs"
done

echo "==> preset tsan: configure, build and run the threading tests"
cmake --preset tsan
cmake --build --preset tsan -j"$jobs"
ctest --preset tsan -j"$jobs"

echo "==> all tests passed (default, asan, and the threading tests under tsan)"

#!/usr/bin/env bash
# Installs what is missing, builds the presets named and runs all their tests.
#
# usage: ./test.sh [PRESET...]      (default: release; CMakePresets.json has debug, asan and tsan too)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
(($#)) || set -- release

script/bootstrap
failed=()
for preset in "$@"; do
    script/build "$preset"
    echo "test: running the tests of $preset"
    ctest --preset "$preset" || failed+=("$preset")
done
if ((${#failed[@]})); then
    echo "test: failed: ${failed[*]}" >&2
    exit 1
fi

#!/usr/bin/env bash
# Installs what is missing, builds the presets named and runs all their tests.
#
# usage: ./test.sh [PRESET...]      (default: release; CMakePresets.json has debug, asan and tsan too)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
. script/common.sh
(($#)) || set -- release

test/sandbox --check
script/bootstrap
failed=()
for preset in "$@"; do
    script/build "$preset"
    say "running the tests of $preset"
    ctest --preset "$preset" || failed+=("$preset")
done
((${#failed[@]} == 0)) || fail "failed: ${failed[*]}"

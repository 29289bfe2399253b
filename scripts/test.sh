#!/usr/bin/env bash
# Installs what is missing, builds both targets and runs every test: the release program with a smoke test of
# the run command, the Debian package and the Windows installer with their checks, Linux (plain, ASan/UBSan, ThreadSanitizer, fuzzers) with
# ctest, and the Windows build under Wine in a fresh prefix. Exits non-zero when anything fails.
set -uo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh test || { echo "installing the test dependencies failed"; exit 1; }

export WINEDEBUG=-all
wine=$(command -v wine64 || command -v wine || echo /usr/lib/wine/wine64)
failed_steps=()
passed_total=0
failed_total=0

# Runs ctest for a preset and adds its counts to the totals.
run_ctest() {
    local preset=$1 log
    log=$(mktemp)
    ctest --preset "$preset" 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]}
    local summary
    summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
    rm -f "$log"
    if [ -n "$summary" ]; then
        local failed total
        failed=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$summary")
        total=$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$summary")
        passed_total=$((passed_total + total - failed))
        failed_total=$((failed_total + failed))
    fi
    return "$status"
}

# The time since the script started, so that a slow step shows in the log.
elapsed() {
    printf '%dm%02ds' $((SECONDS / 60)) $((SECONDS % 60))
}

build_and_test() {
    local preset=$1
    echo "==== $preset: configure and build (at $(elapsed))"
    if ! cmake --preset "$preset" >/dev/null || ! cmake --build --preset "$preset"; then
        failed_steps+=("$preset build")
        return
    fi
    if [ "$preset" = windows ]; then
        # A fresh Wine prefix inside the build folder for every run.
        rm -rf build/windows/wineprefix
        WINEPREFIX="$PWD/build/windows/wineprefix" "$wine" wineboot --init >/dev/null 2>&1
        WINEPREFIX="$PWD/build/windows/wineprefix" "$(dirname "$wine")/wineserver" -w 2>/dev/null || true
    fi
    echo "==== $preset: tests (at $(elapsed))"
    run_ctest "$preset" || failed_steps+=("$preset tests")
}

# The program as the run command builds it: the release preset (no tests of its own), then a smoke test of
# the run command itself.
echo "==== release: configure and build (at $(elapsed))"
if cmake --preset release >/dev/null && cmake --build --preset release; then
    echo "==== release: smoke test of the run command"
    if bash scripts/smoke-run.sh; then
        passed_total=$((passed_total + 1))
    else
        failed_total=$((failed_total + 1))
        failed_steps+=("run command smoke test")
    fi
else
    failed_steps+=("release build")
fi

# The packages as the package command builds them, each checked as a user's machine would take it: the Debian
# package, and the Windows installer under Wine (screenshots of its pages under build/windows/screenshots/).
echo "==== packages: build and check (at $(elapsed))"
if bash scripts/package.sh; then
    for check in "tests/package/check_package.sh build/packages/velmartaskscheduler_*.deb" \
                 "tests/package/check_windows_installer.sh build/packages/VelmarTaskScheduler-*-installer.exe build/windows/screenshots"; do
        # shellcheck disable=SC2086 # the package names are globs
        if bash $check; then
            passed_total=$((passed_total + 1))
        else
            failed_total=$((failed_total + 1))
            failed_steps+=("package check ${check%% *}")
        fi
    done
else
    failed_steps+=("package build")
fi

for preset in linux linux-asan linux-tsan linux-fuzz windows; do
    build_and_test "$preset"
done

echo
echo "==== summary (after $(elapsed))"
if [ ${#failed_steps[@]} -gt 0 ]; then
    echo "failed: ${failed_steps[*]}"
fi
echo "Total: $passed_total passed, $failed_total failed"
[ ${#failed_steps[@]} -eq 0 ] && [ "$failed_total" -eq 0 ]

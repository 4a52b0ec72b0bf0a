#!/usr/bin/env bash
# Runs the whole test suite once on a coverage build (make coverage) and prints the line and branch
# coverage of the library's sources (src/ only: not the tests, tools, bundles or system headers).
# Branches are counted twice: all of them, and without the exception paths that the compiler adds
# to nearly every call (gcovr's throw and unreachable branches), which say more about the code.
# Exits with ctest's status after printing the figures.
# Usage: coverage.sh BUILD_DIR JOBS
set -uo pipefail

build=${1:?usage: coverage.sh BUILD_DIR JOBS}
jobs=${2:?usage: coverage.sh BUILD_DIR JOBS}
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

# Counts of an earlier run (and of the test discovery at build time) are not this run's.
find "$build" -name '*.gcda' -delete
# libgcov reports on stderr, which tests that check a program's exact output would take as theirs.
export GCOV_ERROR_FILE="$root/$build/gcov-errors.log"
rm -f "$GCOV_ERROR_FILE"
(cd "$build" && ctest --output-on-failure -j "$jobs")
status=$?
if [[ -s "$GCOV_ERROR_FILE" ]]; then
  echo "coverage: libgcov reported $(wc -l <"$GCOV_ERROR_FILE") problems; see $GCOV_ERROR_FILE"
fi

# A count file that a test's child damaged (a file-size limit, a kill mid-write) is skipped, with
# its problem in gcov-errors.log, rather than failing the whole report.
gcovr_args=(-r "$root" --object-directory "$build" --filter 'src/' -j "$jobs" --gcov-ignore-parse-errors -o "$build/coverage-summary.txt")
echo "coverage of src/:"
gcovr "${gcovr_args[@]}" --print-summary 2>/dev/null | grep -E '^(lines|branches):' |
  sed 's/^branches:/branches (all):/'
gcovr "${gcovr_args[@]}" --exclude-throw-branches --exclude-unreachable-branches --print-summary \
  2>/dev/null | grep -E '^branches:' | sed 's/^branches:/branches (without exception paths):/'
exit $status

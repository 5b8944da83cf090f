#!/usr/bin/env bash
# Lines and branches that the unit and process tests and those of the statistics run, by gcov: per
# folder of the agent, per file, and which lines are not covered. Fails when a folder has less than
# 95 % of its lines. Without --quick the tests are run first, which takes some minutes.
set -euo pipefail
cd "$(dirname "$0")"
source tools/setup.sh

folders=(core client link protocols api ping)
least=95
report=build/coverage/report
filter="($(IFS='|'; echo "${folders[*]}"))/"

if [ "${1:-}" != --quick ]; then
  install_packages "${build_packages[@]}" gcovr
  step "Coverage build"
  cmake --preset coverage >/dev/null
  cmake --build --preset coverage
  step "Tests"
  find build/coverage -name '*.gcda' -delete
  export LUMO_STOP_AGENTS=1  # a killed one leaves no counts
  # The one test looks at the reader's signals; here the reader catches SIGTERM to leave its counts.
  ctest --test-dir build/coverage --output-on-failure --parallel "$(test_jobs)" -L 'unit|process|differential|stats' \
    --exclude-regex 'LocalIpcReader.TheReaderTakesSignalsAsItShould'
fi

step "Counts"
mkdir -p "$report"
# The agent as it is in its program and in the unit tests; the tests themselves are not measured.
gcovr --root . --filter "$filter" --exclude-throw-branches --exclude-unreachable-branches \
  --txt "$report/lines.txt" --json-summary "$report/summary.json" --html-details "$report/index.html" \
  build/coverage/CMakeFiles
gcovr --root . --filter "$filter" --exclude-throw-branches --exclude-unreachable-branches \
  --branches --txt "$report/branches.txt" build/coverage/CMakeFiles
cat "$report/lines.txt"

step "By folder"
python3 - "$report/summary.json" "$least" "${folders[@]}" <<'PYTHON'
import json
import sys

files = json.load(open(sys.argv[1]))["files"]
least, folders = float(sys.argv[2]), sys.argv[3:]
keys = ("line_covered", "line_total", "branch_covered", "branch_total")
missed = False
print(f"{'folder':<12}{'lines':>18}{'branches':>20}")
for folder in folders:
    sums = [sum(file[key] for file in files if file["filename"].startswith(folder + "/"))
            for key in keys]
    lines, branches = 100 * sums[0] / sums[1], 100 * sums[2] / max(sums[3], 1)
    missed = missed or lines < least
    print(f"{folder:<12}{sums[0]:>6} of {sums[1]:<4}{lines:>5.1f}{sums[2]:>8} of {sums[3]:<4}"
          f"{branches:>5.1f}" + (f"  less than {least:g}" if lines < least else ""))
sys.exit(missed)
PYTHON
echo "The lines: $report/index.html"

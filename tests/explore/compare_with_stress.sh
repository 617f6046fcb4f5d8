#!/usr/bin/env bash
# How often each re-introduced bug is found in the same time by the explorer
# (controlled schedules of scenarios/explore-classic.hyk) and by the
# real-thread stress tests (tests/stress): those that leave the schedule to
# the machine, run again and again for the same time, and then, once, the
# whole binary with the tests that force a narrow window with a hook.
#   tests/explore/compare_with_stress.sh [BUILD_DIR] [SCHEDULES] ["BUGS"]
# The explorer runs SCHEDULES schedules (default 600); the stress tests then
# run for as long as that took.  A measurement, not a test: the figures
# depend on the machine and on what else it runs.
set -uo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build/default}
schedules=${2:-600}
hyksim=$build/tools/hyksim/hyksim
stress=$build/tests/lus_stress_tests
# The stress tests whose interleavings the machine chooses (no hook holds a window open).
unhooked='*RestoreEventsAndTheClearTimerOverlap*:*CommandsZeroToFiveAndTwelve*:*UnloadWhileRestoreEventsAreInFlight*:*RestoreCallbacksThatSleep*:WorldStressTest.*'
for bug in ${3:-1 2 3}; do
  dir=$build/modules/reintroduced-bug-$bug
  start=$SECONDS
  explore=$("$hyksim" run scenarios/explore-classic.hyk --module-dir "$dir" --schedules "$schedules" \
              --keep-going --jobs 1 --schedule-seed 99 2>&1)
  secs=$((SECONDS - start))
  found=$(grep -c "^schedule [0-9]* FAILED" <<<"$explore")
  first=$(grep -m1 -o "^first failure: schedule [0-9]*" <<<"$explore" | grep -o "[0-9]*$")
  runs=0 failed=0 end=$((SECONDS + secs))
  while [ $SECONDS -lt $end ]; do
    runs=$((runs + 1))
    LUS_TEST_MODULE=$dir/b2000/lus.so timeout 300 "$stress" --gtest_filter="$unhooked" >/dev/null 2>&1 ||
      failed=$((failed + 1))
  done
  hooked=$(LUS_TEST_MODULE=$dir/b2000/lus.so timeout 300 "$stress" 2>&1 | grep -o "^\[  FAILED  \] [A-Za-z.]*$" |
           sed 's/.*\] //' | sort -u | tr '\n' ' ')
  echo "bug $bug: explorer: $found of $schedules schedules failed in ${secs} s (first: schedule ${first:-none});" \
       "stress tests without hooks: $failed of $runs runs failed in the same ${secs} s;" \
       "the whole stress binary once: failing ${hooked:-none}"
done

#!/usr/bin/env bash
# The explorer finds a re-introduced concurrency bug and replays it:
#   finds_bug.sh HYKSIM SCENARIO MODULE_DIR SCHEDULES [EXPLORER OPTIONS...]
# Passes when an exploration of at most SCHEDULES schedules of SCENARIO on
# the modules of MODULE_DIR fails, and the schedule it names, replayed twice
# from its seed, fails the same way with the same host-call trace and log.
set -euo pipefail
hyksim=$1 scenario=$2 modules=$3 schedules=$4
shift 4
out=$(mktemp)
trap 'rm -f "$out" "$out".1 "$out".2' EXIT

if "$hyksim" run "$scenario" --module-dir "$modules" --schedules "$schedules" --jobs 2 "$@" >"$out" 2>&1; then
  cat "$out"
  echo "finds_bug: $schedules schedules passed: the bug was not found" >&2
  exit 1
fi
grep -E "FAILED|first failure" "$out" | head -3
replay=$(grep -m1 -o -- "--schedule 0x[0-9a-f]*.*$" "$out" || true)
if [ -z "$replay" ]; then
  cat "$out"
  echo "finds_bug: the failing schedule names no seed to replay" >&2
  exit 1
fi
for i in 1 2; do
  # shellcheck disable=SC2086 # the replay options (seed, module directory) are words
  if "$hyksim" run "$scenario" $replay >"$out.$i" 2>&1; then
    cat "$out.$i"
    echo "finds_bug: the replay ($replay) passed" >&2
    exit 1
  fi
done
# The same schedule: the same failure, the same trace and log, byte for byte.
figures() {
  grep -E "^schedule 0x|^schedule failed|PANIC|state not intact|\.hyk:[0-9]+:|^ +step +[0-9]+ |ERROR: [A-Za-z]+Sanitizer" "$1" |
    sed -E 's/0x[0-9a-f]{8,}//g; s/==[0-9]+==//g; s/\(pid=[0-9]+\)//g' | sort -u || true
}
if ! diff <(figures "$out.1") <(figures "$out.2") >/dev/null; then
  diff <(figures "$out.1") <(figures "$out.2") || true
  echo "finds_bug: two replays of $replay differ" >&2
  exit 1
fi
if [ -z "$(figures "$out.1")" ]; then
  cat "$out.1"
  echo "finds_bug: the replay says nothing of its failure" >&2
  exit 1
fi
echo "replayed twice ($replay), the same both times:"
figures "$out.1" | grep -v "^ *step" | head -5
echo "($(figures "$out.1" | grep -c "^ *step") scheduling decisions compared)"

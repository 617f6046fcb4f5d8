#!/usr/bin/env bash
# A fleet of twelve simulated hosts upgraded by deploy/ansible/upgrade-fleet.yml:
#   1. check mode on the canary and the first wave changes nothing;
#   2. a clean rollout upgrades all twelve (each host's `lusctl status`);
#   3. with host05's new switch refusing a port, the rollout stops after
#      host05's wave, host05 is recovered, every later host is untouched on
#      build 1000 with no lus loaded, ansible-playbook exits non-zero, and the
#      fleet report names host05 and its first failure.
# Usage: fleet_test.sh BUILD_DIR SOURCE_DIR [SANITIZE]
set -euo pipefail

build="$1"
src="$2"
sanitize="${3:-}"
if [ -n "$sanitize" ]; then
   echo "skipped: a sanitizer build ($sanitize)"
   exit 77
fi
command -v ansible-playbook >/dev/null ||
   { echo "FAIL: ansible-playbook is not installed (scripts/install-deps.sh installs ansible-core)"; exit 1; }

lusctl="$build/tools/lusctl/lusctl"
fleetsim="$src/deploy/fleet-sim/fleet-sim"
playbook="$src/deploy/ansible/upgrade-fleet.yml"
# A short path: the hosts' sockets live under it.
work="$(mktemp -d /tmp/lus-fleet-test.XXXXXX)"
fleet="$work/fleet"
cleanup() {
   "$fleetsim" stop --dir "$fleet" >/dev/null 2>&1 || true
   rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

failures=0
check() {   # check WHAT COMMAND...: counts and names a check that does not hold
   local what="$1"
   shift
   if "$@"; then
      echo "ok: $what"
   else
      echo "FAIL: $what"
      failures=$((failures + 1))
   fi
}

name() { printf 'host%02d' "$1"; }
status_json() { "$lusctl" --host "$fleet/hosts/$(name "$1").sock" status --json; }
# on_build I B: host I runs build B alone, no upgrade unfinished.
on_build() {
   local other=$(( $2 == 1000 ? 2000 : 1000 ))
   status_json "$1" | python3 -c "
import json, sys
s = json.load(sys.stdin)
ok = '$2' in s['builds'] and '$other' not in s['builds'] and not s['unfinished'] and not s['portsBlocked']
sys.exit(0 if ok else 1)"
}
# untouched I: host I on build 1000 with no lus loaded.
untouched() {
   status_json "$1" | python3 -c "
import json, sys
s = json.load(sys.stdin)
sys.exit(0 if list(s['builds']) == ['1000'] and not s['lusLoaded'] and not s['unfinished'] else 1)"
}
playbook() {   # playbook REPORT_DIR ARGS...: runs the rollout, its output on stdout and in REPORT_DIR.log
   local dir="$1"
   shift
   set +e
   (cd "$src/deploy/ansible" &&
      ANSIBLE_NOCOLOR=1 ansible-playbook -i "$fleet/inventory.yml" upgrade-fleet.yml \
         -e "lus_fleet_report_dir=$dir" "$@") >"$dir.log" 2>&1
   local rc=$?
   set -e
   sed -n '/PLAY RECAP/,$p' "$dir.log"
   return $rc
}

# ---- 1 and 2: check mode, then a clean rollout --------------------------------------------
"$fleetsim" start --hosts 12 --dir "$fleet" --ttl 600 --bin "$build/tools"

echo "== check mode on the canary and host02"
rc=0
playbook "$work/check" --check --limit host01,host02,localhost || rc=$?
check "check mode exits 0" [ "$rc" -eq 0 ]
check "check mode ran lusctl --dry-run" grep -q "check mode, the steps it would take" "$work/check.log"
for i in 1 2; do check "$(name "$i") is untouched after check mode" untouched "$i"; done

echo "== a clean rollout of twelve hosts"
rc=0
playbook "$work/clean" || rc=$?
check "the clean rollout exits 0" [ "$rc" -eq 0 ]
for i in $(seq 12); do check "$(name "$i") runs build 2000" on_build "$i" 2000; done
"$lusctl" fleet-report "$work/clean" | tee "$work/clean.txt"
check "the fleet report counts twelve hosts passed" \
   grep -q "12 of 12 host(s) reached in 5 wave(s); 12 passed, 0 failed" "$work/clean.txt"
"$fleetsim" stop --dir "$fleet"

# ---- 3: host05's new switch refuses a port -------------------------------------------------
echo "== a rollout in which host05's new switch refuses a port"
"$fleetsim" start --hosts 12 --dir "$fleet" --ttl 600 --bin "$build/tools" --fail-host 5
rc=0
playbook "$work/failing" || rc=$?
check "ansible-playbook exits non-zero (it exited $rc)" [ "$rc" -ne 0 ]
check "host05 failed and was rescued" grep -Eq "^host05 .* failed=1 .* rescued=1" "$work/failing.log"
wave_of() { python3 -c "import json, sys; print(json.load(open(sys.argv[1]))['wave'])" "$work/failing/$(name "$1").host.json"; }
waves="$(for i in 1 2 3 4 5 6 7 8; do echo -n "$(wave_of "$i") "; done)"
check "waves: the canary, host02, host03, then host04 to host08 (got: $waves)" [ "$waves" = "1 2 3 4 4 4 4 4 " ]
for i in 1 2 3 4 6 7 8; do check "$(name "$i") runs build 2000" on_build "$i" 2000; done
check "host05 is recovered: no upgrade unfinished, no port blocked by lus" on_build 5 2000
for i in 9 10 11 12; do check "$(name "$i") is untouched: build 1000, no lus" untouched "$i"; done
for i in 9 10 11 12; do check "$(name "$i") has no record of the rollout" [ ! -e "$work/failing/$(name "$i").host.json" ]; done
"$lusctl" fleet-report "$work/failing" --svg "$work/failing.svg" | tee "$work/failing.txt"
check "the fleet report says where the rollout stopped" grep -q \
   "stopped after wave 4 (failed: host05); not reached, left on build 1000: host09, host10, host11, host12" \
   "$work/failing.txt"
check "the fleet report names host05 and its first failure" grep -Eq \
   "^host05 +4  FAILED .* clean +step 10 'ports restored': Busy; ps-a#3 tarnq-vswitch: Restore Runtime State FAIL for client tarnq-vswitch" \
   "$work/failing.txt"
check "the fleet report's picture renders" rsvg-convert "$work/failing.svg" -o "$work/failing.png"
if [ -n "${LUS_FLEET_KEEP:-}" ]; then
   mkdir -p "$LUS_FLEET_KEEP"
   cp -r "$work/clean" "$work/failing" "$work"/*.log "$work"/*.txt "$work"/failing.svg "$work"/failing.png "$LUS_FLEET_KEEP/"
fi
"$fleetsim" stop --dir "$fleet"

if [ "$failures" -ne 0 ]; then
   echo "FAILED: $failures check(s)"
   exit 1
fi
echo "passed"

#!/bin/sh
# debian_packages.sh BUILD_DIR [SANITIZE]
#
# Makes the Debian packages of the build tree (cpack), checks them with
# lintian (no error, no warning), unpacks each into a root of its own
# (dpkg-deb -x: nothing is installed on the machine), builds the client
# template against lus-dev alone, and runs the template's scenarios with
# lus-host's hyksim.
set -eu
build=${1:?usage: debian_packages.sh BUILD_DIR [SANITIZE]}
# The packages are of a plain build: a sanitizer build's modules call its runtime.
if [ -n "${2:-}" ]; then
   echo "skipped: a sanitizer build (${2}) is not packaged"
   exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cd "$work"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/out" >cpack.log 2>&1 || { cat cpack.log; exit 1; }
host=$(ls out/lus-host_*.deb)
dev=$(ls out/lus-dev_*.deb)
echo "packages: $(basename "$host") $(basename "$dev")"

if command -v lintian >/dev/null 2>&1; then
   # Running as root is only warned about; every other line is a finding.
   lintian --tag-display-limit 0 "$host" "$dev" 2>&1 | grep -v 'running with root privileges' >lintian.log || true
   if [ -s lintian.log ]; then
      echo "lintian:"; cat lintian.log
      exit 1
   fi
   echo "lintian: no finding"
fi

mkdir dev-root host-root
dpkg-deb -x "$dev" dev-root
dpkg-deb -x "$host" host-root

# The template builds against the SDK alone: no lus-host, no source tree.
cp -r dev-root/usr/share/lus/examples/client-template template
cmake -S template -B template/build -DCMAKE_PREFIX_PATH="$work/dev-root/usr" >configure.log 2>&1 \
   || { cat configure.log; exit 1; }
cmake --build template/build -j2 >build.log 2>&1 || { cat build.log; exit 1; }
ls template/build/modules/clients/*.so

# ... and upgrades on the packaged host.
for s in template/scenarios/*.hyk; do
   # One file per run: each file is a host of its own.
   host-root/usr/bin/hyksim run --module-path template/build/modules --report-dir "$work" "$s"
done
echo "the template built against lus-dev and upgraded on lus-host"

#!/bin/sh
# template_test.sh BUILD_DIR SOURCE_DIR CMAKE SANITIZE
#
# What a datapath team does with the installed package, from scratch:
# installs the build tree BUILD_DIR to a fresh prefix, configures and builds
# the installed client template out of tree against that prefix alone, and
# runs the template's scenarios on the installed host with --module-path.
# Any failure fails the test, saying which step.  Exits 77 (skipped) in a
# sanitizer build: the installed modules and programs would carry the
# sanitizers' runtimes, which a plain build of the template does not link.
set -u
bindir=${1:?usage: template_test.sh BUILD_DIR SOURCE_DIR CMAKE SANITIZE}
srcdir=${2:?}
cmake=${3:?}
sanitize=${4:-}

if [ -n "$sanitize" ]; then
   echo "skipped: built with LUS_SANITIZE=$sanitize; the installed package assumes a plain build"
   exit 77
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/lus-package-test.XXXXXX") || exit 1
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
build=$tmp/template-build
# Only the installation's modules and the template's: none from the caller's environment.
unset HYKSIM_MODULE_PATH

fail() {
   echo "FAILED: $*" >&2
   exit 1
}

step() {
   echo "== $*"
}

step "install $bindir to $prefix"
"$cmake" --install "$bindir" --prefix "$prefix" >"$tmp/install.log" 2>&1 ||
   { cat "$tmp/install.log" >&2; fail "cmake --install"; }

template=$prefix/share/lus/examples/client-template
for f in CMakeLists.txt README.md acme_qos.cpp scenarios/upgrade.hyk \
         scenarios/upgrade-portset.hyk; do
   [ -f "$template/$f" ] || fail "the installed template lacks $f"
done
for f in bin/hyksim bin/lusctl lib/cmake/Lus/LusConfig.cmake include/lus.h \
         include/hyksim/ledger.h; do
   [ -e "$prefix/$f" ] || fail "the installation lacks $f"
done

step "configure the installed template against $prefix"
"$cmake" -S "$template" -B "$build" -DCMAKE_PREFIX_PATH="$prefix" ||
   fail "configuring the template against the installed package"

step "build it"
"$cmake" --build "$build" --parallel 2 || fail "building the template against the installed package"
for b in 1000 2000; do
   [ -f "$build/modules/clients/acme-qos-$b.so" ] || fail "no acme-qos-$b.so after the build"
done

# The template must have been built from the installation alone.
if grep -rqF "$srcdir" "$build/CMakeCache.txt" "$build/CMakeFiles" 2>/dev/null; then
   grep -rlF "$srcdir" "$build/CMakeCache.txt" "$build/CMakeFiles" >&2
   fail "the template's build refers to the source tree $srcdir"
fi

step "the installed host finds the template's modules"
"$prefix/bin/hyksim" modules --module-path "$build/modules" >"$tmp/modules.txt" 2>&1 ||
   { cat "$tmp/modules.txt" >&2; fail "hyksim modules"; }
cat "$tmp/modules.txt"
for m in acme-qos-1000 acme-qos-2000 tarnq-vswitch-1000 tarnq-vswitch-2000 lus-2000; do
   grep -q "^ *$m " "$tmp/modules.txt" || fail "hyksim modules does not list $m"
done

# One scenario per run, each of which must say it passed.
for scenario in upgrade upgrade-portset; do
   step "run scenarios/$scenario.hyk"
   out=$tmp/$scenario.out
   "$prefix/bin/hyksim" run --module-path "$build/modules" --report-dir "$tmp" \
      "$template/scenarios/$scenario.hyk" >"$out" 2>&1
   rc=$?
   cat "$out"
   [ $rc -eq 0 ] || fail "scenarios/$scenario.hyk exited $rc"
   grep -q "^== .*/$scenario.hyk: passed$" "$out" ||
      fail "scenarios/$scenario.hyk did not report that it passed"
done

echo "the template builds against the installed package and both its scenarios pass"
exit 0

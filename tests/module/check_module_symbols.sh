#!/bin/sh
# check_module_symbols.sh MODULE SANITIZED [client]
#
# Fails when the module object leaves any symbol undefined other than the
# host's operations (hyk_*, _hyk_*), the packet-filter entry point, and the
# mem* routines the compiler may emit (with the C library's symbol version,
# see lus_module_kernel_options); in a sanitizer build (SANITIZED=1) the
# sanitizer runtimes' entry points are allowed too.  Anything else (malloc,
# operator new, __cxa_*, a libstdc++ symbol) would be a call the host kernel
# cannot resolve.  A sample client (third argument "client") may also call
# the simulator's ledger (hyksim_Ledger*), which only the simulated host has.
set -u
module=${1:?usage: check_module_symbols.sh MODULE SANITIZED}
sanitized=${2:-0}
kind=${3:-module}

if [ ! -f "$module" ]; then
   echo "no such module: $module" >&2
   exit 2
fi

undefined=$(nm -u "$module") || { echo "nm failed on $module" >&2; exit 2; }
names=$(printf '%s\n' "$undefined" | awk 'NF { print $NF }')
if [ -z "$names" ]; then
   echo "nm reported no undefined symbol at all in $module: not a module" >&2
   exit 2
fi

allowed='^(_?hyk_[A-Za-z0-9_]+|PFilter_TblRevalidateVmPort|(memcpy|memset|memmove|memcmp)(@GLIBC_[0-9.]+)?)$'
if [ "$sanitized" = 1 ]; then
   allowed='^(_?hyk_[A-Za-z0-9_]+|PFilter_TblRevalidateVmPort|(memcpy|memset|memmove|memcmp)(@GLIBC_[0-9.]+)?|__(asan|ubsan|tsan|sanitizer)_[A-Za-z0-9_]+)$'
fi

if [ "$kind" = client ]; then
   allowed=$(printf '%s' "$allowed" | sed 's/^\^(/^(hyksim_Ledger[A-Za-z]+|/')
fi

bad=$(printf '%s\n' "$names" | grep -Ev "$allowed" || true)
if [ -n "$bad" ]; then
   echo "$module: undefined symbols the host does not provide:"
   printf '  %s\n' $bad
   if printf '%s\n' $bad | grep -q '^hyksim_Ledger'; then
      echo "  (the simulator's ledger: build with lus_add_module(... LEDGER), or put the calls under"
      echo "   #ifdef LUS_SIMULATOR_LEDGER so that a build for a real host leaves them out)"
   fi
   exit 1
fi
echo "$module: $(printf '%s\n' "$names" | wc -l) undefined symbols, all provided by the host"
exit 0

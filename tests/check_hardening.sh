#!/usr/bin/env bash
# Checks that the hardening flags have reached the program. $1: the agent of a release build.
set -uo pipefail
export LC_ALL=C
program=$1
headers=$(readelf --wide --file-header --program-headers "$program") || exit 1
dynamic=$(readelf --wide --dynamic "$program") || exit 1
imports=$(readelf --wide --dyn-syms "$program" | awk '$7 == "UND" { sub(/@.*/, "", $8); print $8 }')
code=$(objdump --disassemble --no-show-raw-insn "$program") || exit 1
failed=0

# What it is about, the text to look into, and what must be, or must not be, found there.
expect() { grep -Eq -- "$3" <<<"$2" || { echo "$program: $1"; failed=1; }; }
refuse() { ! grep -Eq -- "$3" <<<"$2" || { echo "$program: $1"; failed=1; }; }

expect "not position independent" "$headers" 'Type: +DYN'
expect "not marked as a position independent program" "$dynamic" 'Flags:.* PIE'
expect "no relocations that become read-only" "$headers" 'GNU_RELRO'
expect "relocations are made late" "$dynamic" 'BIND_NOW'
expect "no mark for the stack" "$headers" 'GNU_STACK'
refuse "the stack can be executed" "$headers" 'GNU_STACK .* RWE '
refuse "a segment can be written and executed" "$headers" 'LOAD .* RWE '
refuse "a search path for libraries" "$dynamic" '\((RPATH|RUNPATH)\)'
refuse "relocations in the code" "$dynamic" '\(TEXTREL\)'
expect "no stack protector" "$imports" '^__stack_chk_fail$'
for call in snprintf vsnprintf memcpy fdelt; do
  expect "$call is not fortified" "$imports" "^__${call}_chk\$"
done
# A page of a large frame is touched before the next one is used.
expect "large stack frames are not probed" "$code" 'or[lq] +\$0x0,(0x[0-9a-f]+)?\(%rsp'
exit $failed

#!/bin/bash
# scripts/check-abi tells what programs linked with the last release would miss. The library stays as it is; it is held
# against releases that differ from it: abi_test.sh PROJECT LIBRARY
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
cd "$1" || exit
library=$2
command -v abidiff >/dev/null || { echo "skip: no abidiff" && exit 77; }
readelf -SW "$library" | grep -qF .debug_info || { echo "skip: the library has no debug information" && exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# against NAME EXPECTED-STATUS EXPECTED-TEXT SED-SCRIPT: the record, changed so, is the last release.
against() {
    sed -E "$4" framework/kservice.abi >"$work/released"
    [ -z "$4" ] || ! cmp -s framework/kservice.abi "$work/released" || check "$1: the record changes" no yes
    output=$(scripts/check-abi "$library" --against "$work/released" 2>&1)
    check "$1: status" $? "$2"
    check "$1: it says so" "$(grep -oFm 1 "$3" <<<"$output" | head -n 1)" "$3"
}

against "the record as it is" 0 'abi: ok' ''
against "a new field" 1 "'int32_t mapped_fd'" "/class-decl name='ks_io'/s/2560/2496/; /layout-offset-in-bits='2528'/,/data-member>/d"
against "a field of another type" 1 "type of 'char magic' changed" "/var-decl name='magic'/s/type-id-[0-9]+/type-id-1/"
against "a function that is gone" 1 '1 Removed function' "s/ks_io_gid/ks_io_group/g"
against "another parameter" 1 "parameter 2 of type 'int' was removed" "/function-decl name='ks_io_free'/,/<return/s/<return/<parameter type-id='type-id-5'\/>&/"
against "another soname" 1 'SONAME changed' "s/libkservice.so.1/libkservice.so.0/"
against "a symbol of another version" 1 'KSERVICE_0' "s/(ks_io_gid.*)KSERVICE_1/\1KSERVICE_0/"
against "a new symbol of a released version" 1 'new: KSERVICE_1 ks_io_gid' "/name='ks_io_gid'/d"
against "new symbols of a new version" 0 'and new: KSERVICE_1 SHA1Input' "/<elf-symbol/d"
exit $failed

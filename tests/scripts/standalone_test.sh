#!/bin/bash
# A daemon that is to be whole in itself serves, and reports its crash, where the compiler's libraries are missing: in a
# simulated host that loses them or, emulated, with nothing but the C library of a 64-bit ARM root.
#   standalone_test.sh FOLDER-OF-THE-PROGRAMS [ARM-ROOT]
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
[ -e /.hostsim ] || exit 1
programs=$1 root=${2-}
log=/share/VexHubServer/.log/.lyn_ks_vexprod.log

run=()
if [ -n "$root" ]; then
    run=(qemu-aarch64-static)
    export QEMU_LD_PREFIX=/tmp/root
    mkdir -p $QEMU_LD_PREFIX/lib/aarch64-linux-gnu
    cp -L "$root/lib/ld-linux-aarch64.so.1" $QEMU_LD_PREFIX/lib/
    cp -L "$root"/lib/aarch64-linux-gnu/lib{c,m}.so.6 $QEMU_LD_PREFIX/lib/aarch64-linux-gnu/
elif [ "${HOSTSIM_IN_PLACE-}" = 1 ]; then
    echo "skip: this machine needs its libraries"
    exit
else
    rm -f /usr/lib/*/libgcc_s.so* /usr/lib/*/libstdc++.so* /usr/lib/*/libjsoncpp.so*
fi

"${run[@]}" "$programs/vexprod" </dev/null &
daemon=$!
"${run[@]}" "$programs/ksctl" wait VexHubServer-vexprod --timeout 60
check "the service comes up" $? 0
for number in first second; do
    check "its $number reply" "$("${run[@]}" "$programs/ksctl" call main get_vpd_channel)" '{"result":0,"vpd_channel":"16"}'
done
said=$("${run[@]}" "$programs/ksctl" conform main 2>&1)
check "it keeps the protocol" $? 0
[ $failed = 0 ] || echo "$said"
kill -SEGV $daemon
wait $daemon 2>/dev/null
check "a crash's status" $? 137
frames=$(grep -F '[vexprod_debug_backtrace_dump]' $log)
for frame in "$programs/vexprod(" '__libc_start_main'; do
    check "the report has $frame" "$(grep -oFm 1 "$frame" <<<"$frames" | head -n 1)" "$frame"
done
[ $failed = 0 ] || cat $log
exit $failed

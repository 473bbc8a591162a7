#!/bin/bash
# A daemon that is to be whole in itself serves, and reports its crash, where the compiler's libraries are missing. In a
# simulated host, which loses them: standalone_test.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
[ -e /.hostsim ] || exit 1
[ "${HOSTSIM_IN_PLACE-}" != 1 ] || { echo "skip: this machine needs its libraries" && exit; }
programs=$1
log=/share/VexHubServer/.log/.lyn_ks_vexprod.log

rm -f /usr/lib/*/libgcc_s.so* /usr/lib/*/libstdc++.so* /usr/lib/*/libjsoncpp.so*
"$programs/vexprod" </dev/null &
daemon=$!
"$programs/ksctl" wait VexHubServer-vexprod --timeout 60
check "the service comes up" $? 0
for number in first second; do
    check "its $number reply" "$("$programs/ksctl" call main get_vpd_channel)" '{"result":0,"vpd_channel":"16"}'
done
said=$("$programs/ksctl" conform main 2>&1)
check "it keeps the protocol" $? 0
[ $failed = 0 ] || echo "$said"
kill -SEGV $daemon
wait $daemon 2>/dev/null
check "a crash's status" $? 137
frames=$(grep -F '[vexprod_debug_backtrace_dump]' $log)
for frame in "$programs/vexprod(" '__libc_start_main'; do
    check "the report has $frame" "$(grep -oFm 1 "$frame" <<<"$frames" | head -n 1)" "$frame"
done
exit $failed

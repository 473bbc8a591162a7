#!/bin/bash
# The demo goes through, fits a terminal of 80 columns, and is plain where nobody looks: demo_test.sh PROJECT
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
cd "$1" || exit

output=$(hostsim/enter scripts/demo 2>&1)
check "its status" $? 0
counts=$(grep -oE '^[0-9]+ of [0-9]+ as expected\.$' <<<"$output")
check "all is as expected" "${counts%% of *}" "$(sed -E 's/.* of ([0-9]+) .*/\1/' <<<"$counts")"
check "lines of more than 80 columns" "$(grep -cE '^.{81}' <<<"$output")" 0
[ $failed = 0 ] || echo "$output"

# HOSTSIM alone makes no host: the demo has to ask for one, which is refused here. In a host, in case it does not ask.
check "HOSTSIM=1 outside a host" "$(hostsim/enter sh -c 'rm /.hostsim; mkdir -p /tmp/bin
    ln -s "$(command -v dirname)" "$(command -v uname)" /tmp/bin; PATH=/tmp/bin exec scripts/demo' 2>&1; echo $?)" \
    "hostsim/probe: no simulated host can be made here: there is no unshare; install util-linux and mount
1"

# The recording of a demo that fails.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/scripts"
cp scripts/record-demo "$scratch/scripts"
ln -s /bin/true "$scratch/termtosvg"
record() { PATH=$scratch:$PATH "$scratch/scripts/record-demo" 2>&1 | tail -n 1; echo "${PIPESTATUS[0]}"; }
check "no demo to record" "$(record)" "record-demo: the demo fails
1"
ln -s /bin/true "$scratch/scripts/demo"
check "a demo that fails while it is recorded" "$(record)" \
    "record-demo: the demo failed while it was recorded; its status: none
1"
exit $failed

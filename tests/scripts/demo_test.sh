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
exit $failed

#!/bin/bash
# post_event names what it does not take: post_event_test.sh POST_EVENT
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
post_event=$1

said() { { "$post_event" "$@" >/dev/null; } 2>&1; } # what it says on standard error
check "help" "$("$post_event" --help | grep -c -e '--source-ip') $?" "2 0"
check "help is no error" "$(said --help)" ""
check "no kind" "$(said | grep -c '^usage: ')" 1
check "an unknown kind" "$(said nope | head -n 1)" "post_event: unknown kind: nope"
check "an unknown option" "$(said log --user alice --nope 1; echo $?)" \
    "post_event: log has no option --nope; post_event --help lists them
2"
check "an option without its value" "$(said notify --type; echo $?)" "post_event: --type takes a value
2"
check "no number of records" "$(said log --count x; echo $?)" "post_event: --count: not a number of records: x
2"
check "no number in a field" "$(said log --level x; echo $?)" "post_event: --level: not a number of 4 bytes: x
2"
exit $failed

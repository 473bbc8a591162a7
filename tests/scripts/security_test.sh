#!/bin/bash
# Each test that SECURITY.md names exists: security_test.sh PROJECT
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
cd "$1" || exit

tests=$(grep -oE '`[A-Z][A-Za-z]+Test\.([A-Za-z]+|\*)`' SECURITY.md | tr -d '`')
for test in $tests; do
    check "$test" "$(grep -rqE "^TEST(_F|_P)?\(${test%.*}, ${test#*.}" tests --include='*.cpp' && echo exists)" exists
done
check "some are named" "$([ "$(wc -w <<<"$tests")" -ge 10 ] && echo yes)" yes

exit $failed

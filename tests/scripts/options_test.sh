#!/bin/bash
# Every script knows --help and refuses what it does not know: options_test.sh PROJECT
set -uo pipefail
source "$(dirname "$0")/../support/check.sh"
cd "$1" || exit

status_of() { # runs the rest, which ends at once, prints only its status
    timeout 20 "$@" >/dev/null 2>&1 </dev/null
    echo $?
}

for script in .ci/run scripts/* hostsim/enter hostsim/in_place hostsim/probe hostsim/smtp_sink; do
    check "$script --help" "$(status_of "$script" --help)" 0
    check "$script --help names it" "$(timeout 20 "$script" --help | grep -qF "$script" && echo named)" named
    check "$script --nope" "$(status_of "$script" --nope)" 2
done
for script in .ci/run scripts/* hostsim/enter hostsim/probe; do
    check "$script names --nope" "$(timeout 20 "$script" --nope 2>&1 | grep -oF -e --nope | head -n 1)" --nope
done
check "what is refused is named" "$(timeout 20 scripts/demo --shell --nope 2>&1 | grep -o -e '--nope')" --nope
check "it is not taken for a run" "$(scripts/check-model --nope 2>&1 | grep -o 'no option and no run')" \
    'no option and no run'
for script in hostsim/probe scripts/{coverage,fetch-jsoncpp,make-sysroot} .ci/run; do
    check "$script '' --nope" "$(status_of "$script" '' --nope)" 2
done
check "an unknown preset" "$(status_of scripts/test nope)" 2
check "an option without its value" "$(status_of scripts/test asan -R)" 2
check "help after other words" "$(status_of scripts/test -R asan --help)" 0
check "no number of seconds" "$(status_of scripts/fuzz)" 2
check "an unknown fuzz target" "$(status_of scripts/fuzz 1 nope)" 2
check "sources that nobody compiles" "$(status_of scripts/check-tidy README.md)" 2

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
ln -s "$(command -v dirname)" "$folder"
check "no abidw" "$(status_of env PATH="$folder" scripts/check-abi README.md)" 1
check "its remedy" "$(env PATH="$folder" scripts/check-abi README.md 2>&1)" \
    'scripts/check-abi: abidw is missing: scripts/setup --checks'

exit $failed

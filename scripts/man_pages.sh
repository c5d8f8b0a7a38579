#!/usr/bin/env bash
# man_pages.sh BIN: looks whether the manual pages are well-formed, and whether they name the options that the programs in
# BIN show with --help, each and no other. Status 0 when all is as it should be.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/setup.sh"

result=0

# What a program knows, with the options of its commands.
options_of() {
    local command
    {
        "$1" --help
        for command in $("$1" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z-]*\) .*/\1/p'); do "$1" "$command" --help; done
    } | sed -nE 's/^  (-[a-zA-Z], )?(--[a-z-]+).*/\2/p' | sort -u
}

# Wide and without hyphenation, so that no option is cut in two; without the examples, where other programs stand, too.
options_on() {
    MANWIDTH=1000 man --no-hyphenation -E ascii -l "$1" | col -b | sed '/^EXAMPLES/,/^[A-Z][A-Z]/d' |
        grep -oE -- '(^|[^[:alnum:]-])--[a-z][a-z0-9-]+' | grep -oE -- '--.*' | sort -u
}

check_page() {
    local page=$1 program differences
    program=$(basename "${page%.*}")
    differences=$(diff <(options_of "$bin/$program") <(options_on "$page"))
    differences+=$(man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
    differences+=$(mandoc -T lint -W warning "$page" | grep -v 'outdated mandoc.db')
    printf '%-14s %s\n' "$program" "${differences:-OK}"
    [ -z "$differences" ] || result=$failure
}

if [ $# != 1 ] || [ ! -x "$1/kesto-access" ]; then
    complain $usage_error "usage: scripts/man_pages.sh BIN, the folder of the programs"
fi
bin=$(cd "$1" && pwd)
install_packages man-db groff-base mandoc bsdextrautils
for page in "$root"/docs/man/*; do check_page "$page"; done
exit $result

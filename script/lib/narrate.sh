# shellcheck shell=bash
# How script/run tells what it does: numbered steps, the commands as typed, what came of them.
bold='' faint='' green='' red='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$'\e[1m' faint=$'\e[2m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
fi
steps=0

step() {
    steps=$((steps + 1))
    printf '\n%s%2d  %s%s\n' "$bold" "$steps" "$*" "$plain"
}

# Shows a command, runs it, and shows what it printed (its first lines, if that is much).
try() {
    local output lines most=${LINES_SHOWN:-12}
    printf '    %s$ %s%s\n' "$faint" "$(typed "$@")" "$plain"
    if ! output=$("$@" 2>&1); then
        printf '%s\n' "$output" | sed 's/^/    /'
        bad "the command failed"
    fi
    [ -n "$output" ] || return 0
    output=${output//"$work/"/}
    lines=$(wc -l <<<"$output")
    sed -n "1,${most}s/^/    /p" <<<"$output"
    if [ "$lines" -gt "$most" ]; then
        printf '    %s… %d lines more%s\n' "$faint" $((lines - most)) "$plain"
    fi
}

# Runs what only matters when it fails.
quietly() {
    local output
    if ! output=$("$@" 2>&1); then
        printf '%s\n' "$output"
        bad "this failed: $*"
    fi
}

# A command as a person would have typed it: quoted where needed, without the scratch folder.
typed() {
    local word line=
    for word in "$@"; do
        word=${word//"$work/"/}
        case $word in
        *[!A-Za-z0-9_./:=@%+-]* | '') word="'$word'" ;;
        esac
        line+="$word "
    done
    printf '%s' "${line% }"
}

good() { printf '    %s✓%s %s\n' "$green" "$plain" "$*"; }
bad() {
    printf '    %s✗ %s%s\n' "$red" "$*" "$plain" >&2
    exit 1
}

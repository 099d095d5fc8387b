# Completion of tavelin(1) for bash: commands, options, image files, and paths inside the image.

# The names that begin like $2 in the image $1, directories with a "/" behind them. Empty when the
# image cannot be read.
_tavelin_paths() {
    local image=$1 word=$2 folder
    case $word in
    */*) folder=${word%/*}/ ;;
    *) folder= ;;
    esac
    tavelin ls -ap "$image" "/$folder" 2>/dev/null | awk -v folder="$folder" '{ print folder $0 }'
}

# A word of the command line as the program would get it: without quotation marks and backslashes.
# Nothing in it is run.
_tavelin_unquoted() {
    local word=$1
    case $word in
    \'*) word=${word#\'} word=${word%\'} ;;
    \"*) word=${word#\"} word=${word%\"} ;;
    *) word=${word//\\/} word=${word/#\~/$HOME} ;;
    esac
    printf '%s' "$word"
}

_tavelin() {
    local word=$2 commands command="" image="" index item
    local before=()
    commands="probe info ls stat find tree du df map hash diff cat readlink check get put sync
        tar undelete mkdir rm mv ln xattr label shell batch mount umount mounts events help"
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        item=${COMP_WORDS[index]}
        case $item in
        -o | --with | --since | --offset | --type | --exclude | -L) ((index++)) ;;
        -n) [ "$command" != events ] || ((index++)) ;;
        -*) ;;
        *) [ -z "$command" ] && command=$item || before+=("$item") ;;
        esac
    done
    if [ -z "$command" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$word")
        return
    fi
    if [ "$3" = -o ]; then
        local words="ro windows_names ignore_case nocheck symlinks=windows symlinks=interix"
        [ "$command" != mount ] || words+=" permissions default_permissions allow_other \
            streams_interface=none writeback low_latency no_sandbox noatime"
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
        return
    fi
    case $word in
    -*)
        local options="--help --read-only --wait --offset -o"
        case $command in
        info) options+=" --stats --json" ;;
        ls) options+=" -l -a -R -h -t -S -r -d -1 -p --streams --short-names --json" ;;
        xattr) options+=" -R --json" ;;
        find) options+=" --type --json" ;;
        tree) options+=" -s -h -L" ;;
        du) options+=" -a -h -s --json" ;;
        df) options+=" -h --json" ;;
        map) options+=" --svg --json" ;;
        diff) options+=" --quick --with --json" ;;
        get | put) options+=" -t --replace --no-streams --quiet --json" ;;
        sync) options+=" -n --delete --checksum --exclude --no-streams -v --quiet --json" ;;
        undelete) options+=" --list --force --json" ;;
        tar) options+=" --no-streams" ;;
        mv) options+=" -t --replace" ;;
        mkdir) options+=" -p" ;;
        rm) options+=" -r -f" ;;
        ln) options+=" -s" ;;
        batch) options+=" -k" ;;
        check) options+=" --deep -q -n -y --json" ;;
        mount) options="--help --read-only -o --foreground --trace" ;;
        umount) options="--help" ;;
        mounts) options="--json --help" ;;
        events) options="--help -n --follow --since --json" ;;
        probe | hash | stat | readlink | label) options+=" --json" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        return
        ;;
    esac
    if [[ $command == @(xattr|sync|tar) ]]; then
        if [ ${#before[@]} -eq 0 ]; then
            case $command in
            xattr) item="list get set rm" ;;
            sync) item="get put" ;;
            tar) item="create extract" ;;
            esac
            mapfile -t COMPREPLY < <(compgen -W "$item" -- "$word")
            return
        fi
        before=("${before[@]:1}")
    fi
    case $command in
    help) mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word") && return ;;
    umount) mapfile -t COMPREPLY < <(compgen -d -- "$word") && return ;;
    events) return ;;
    esac
    compopt -o filenames 2>/dev/null
    if [ ${#before[@]} -eq 0 ] || [ "$3" = --with ] || [ "$command" = mount ]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
    fi
    image=$(_tavelin_unquoted "${before[0]}")
    local IFS=$'\n' paths=""
    if [ "$command" = xattr ] && [ ${#before[@]} -ge 2 ]; then
        # The names of the streams that the file has.
        paths=$(tavelin xattr list "$image" "$(_tavelin_unquoted "${before[1]}")" 2>/dev/null)
        for item in $paths; do
            [[ $item == "$word"* ]] && COMPREPLY+=("$item")
        done
        return
    fi
    word=$(_tavelin_unquoted "$word")
    [[ $command != @(label|undelete) ]] && paths=$(_tavelin_paths "$image" "${word#/}")
    for item in $paths; do
        [[ $item == "${word#/}"* ]] && COMPREPLY+=("$item")
    done
    # Sources of put, targets of get and what diff compares with are on the host.
    if [[ $command == @(put|get|diff|sync|undelete) ]]; then
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _tavelin tavelin

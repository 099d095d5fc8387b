# Completion of tavelin(1) for bash: commands, options, image files, and paths inside the image.

# The names that begin like $2 in the image $1, directories with a "/" behind them. Empty when the
# image cannot be read.
_tavelin_paths() {
    local image=$1 word=$2 folder
    case $word in
    */*) folder=${word%/*}/ ;;
    *) folder= ;;
    esac
    tavelin ls -al "$image" "/$folder" 2>/dev/null |
        awk -v folder="$folder" '{
            kind = substr($1, 1, 1)
            sub(/^[^ ]+ +[0-9]+ +[0-9-]+ [0-9:]+  /, "")
            if (kind == "l") sub(/ -> .*/, "")
            print folder $0 (kind == "d" ? "/" : "")
        }'
}

_tavelin() {
    local word=$2 commands command="" image="" index item
    local before=()
    commands="probe info ls stat cat readlink check get put mkdir rm mv ln xattr label mount umount
        events help"
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        item=${COMP_WORDS[index]}
        case $item in
        -o | --since) ((index++)) ;;
        -*) ;;
        *) [ -z "$command" ] && command=$item || before+=("$item") ;;
        esac
    done
    if [ -z "$command" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$word")
        return
    fi
    if [ "$3" = -o ]; then
        local words="ro windows_names"
        [ "$command" != mount ] || words+=" allow_other low_latency noatime"
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
        return
    fi
    case $word in
    -*)
        local options="--help --read-only -o"
        case $command in
        info) options+=" --stats --json" ;;
        ls) options+=" -l -R -a --json" ;;
        get | put) options+=" --no-streams --quiet --json" ;;
        mkdir) options+=" -p" ;;
        rm) options+=" -r -f" ;;
        ln) options+=" -s" ;;
        check) options+=" --deep -q -n -y --json" ;;
        mount) options+=" --foreground --trace" ;;
        umount) options="--help" ;;
        events) options="--help --follow --since --json" ;;
        probe | stat | readlink | xattr | label) options+=" --json" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        return
        ;;
    esac
    if [ "$command" = xattr ]; then
        if [ ${#before[@]} -eq 0 ]; then
            mapfile -t COMPREPLY < <(compgen -W "list get set rm" -- "$word")
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
    if [ ${#before[@]} -eq 0 ] || [ "$command" = mount ]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
    fi
    image=${before[0]}
    image=${image/#\~/$HOME}
    local IFS=$'\n' paths=""
    [ "$command" != label ] && paths=$(_tavelin_paths "$image" "${word#/}")
    for item in $paths; do
        [[ $item == "${word#/}"* ]] && COMPREPLY+=("$item")
    done
    # Sources of put and targets of get are on the host.
    if [ "$command" = put ] || [ "$command" = get ]; then
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _tavelin tavelin

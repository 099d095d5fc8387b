# shellcheck shell=bash
# install_packages GROUP...: installs what is missing of the named groups of
# packaging/debian-packages. Uses sudo when not root; does nothing when all is there.
install_packages() {
    local root list group line package status missing=() sudo=()
    root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
    list=$root/packaging/debian-packages
    if ! command -v dpkg-query >/dev/null; then
        echo "This is not a Debian system: install the equivalents of $list yourself." >&2
        return 0
    fi
    for group in "$@"; do
        line=$(sed -n "s/^$group: //p" "$list")
        if [ -z "$line" ]; then
            echo "no package group '$group' in $list" >&2
            return 1
        fi
        for package in $line; do
            status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) || true
            if [ "$status" != installed ]; then
                missing+=("$package")
            fi
        done
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "missing packages: ${missing[*]}; install them, or run this as root" >&2
            return 1
        fi
        sudo=(sudo)
    fi
    echo "installing: ${missing[*]}"
    "${sudo[@]}" apt-get update -qq &&
        "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# shellcheck shell=bash
# A fresh Debian system in a folder: made, worked in, and left without mounts.

# make_root SUITE FOLDER
make_root() {
    local log=$2.log
    if ! debootstrap --variant=minbase "$1" "$2" ${DEBIAN_MIRROR:+"$DEBIAN_MIRROR"} >"$log" 2>&1
    then
        tail -n 20 "$log" >&2
        return 1
    fi
    # Nothing is started in it, and no locale is missed.
    printf '#!/bin/sh\nexit 101\n' >"$2/usr/sbin/policy-rc.d"
    chmod +x "$2/usr/sbin/policy-rc.d"
}

inside() {
    local root=$1
    shift
    chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "$@"
}

# Lets programs in it see processes, open terminals of its own, and use FUSE where this machine has
# it.
enter_root() {
    mount -t proc proc "$1/proc"
    mount -t devpts -o newinstance,ptmxmode=666 devpts "$1/dev/pts"
    if [ -e /dev/fuse ] && [ ! -e "$1/dev/fuse" ]; then
        mknod -m 666 "$1/dev/fuse" c 10 229
    fi
}

leave_root() {
    local place
    for place in "$1/dev/pts" "$1/proc"; do
        if mountpoint -q "$place"; then
            umount "$place"
        fi
    done
}

# What packages leave behind: every path but for what apt and dpkg note for themselves.
files_of() {
    (cd "$1" && find . -xdev \( -path ./proc -o -path ./tmp -o -path ./var/cache -o \
        -path ./var/lib/apt -o -path ./var/lib/dpkg -o -path ./var/log \) -prune -o -print | sort)
}

# check_life ROOT PACKAGE: it installs, replaces an older one, and goes away without a trace.
check_life() {
    local root=$1 package=$2 before after
    local install=(apt-get install -y -qq --no-install-recommends -o Dpkg::Use-Pty=0)
    # Its dependencies stay, so that what differs at the end is its own doing.
    mkdir -p "$root/packages"
    cp "$package" "$root/packages/new.deb"
    inside "$root" "${install[@]}" /packages/new.deb >/dev/null
    inside "$root" tavelin --version
    inside "$root" apt-mark -qq manual '~i' >/dev/null
    inside "$root" dpkg --purge tavelin >/dev/null
    before=$(files_of "$root")

    # The same, called older.
    dpkg-deb --raw-extract "$package" "$root.older"
    sed -i 's/^Version: .*/Version: 0~older/' "$root.older/DEBIAN/control"
    dpkg-deb --build "$root.older" "$root/packages/old.deb" >/dev/null
    rm -r "$root.older"
    before+=$'\n./packages/old.deb'
    inside "$root" "${install[@]}" /packages/old.deb >/dev/null
    inside "$root" "${install[@]}" /packages/new.deb >/dev/null
    inside "$root" dpkg-query -W -f='upgraded to ${Version}\n' tavelin
    inside "$root" tavelin --help >/dev/null
    inside "$root" test -L /usr/sbin/mount.tavelin
    inside "$root" dpkg --purge tavelin >/dev/null
    after=$(files_of "$root")
    if ! diff <(sort <<<"$before") <(sort <<<"$after"); then
        echo "purging the package left or took something" >&2
        return 1
    fi
    echo "installs, upgrades and purges in a clean root without a trace"
}

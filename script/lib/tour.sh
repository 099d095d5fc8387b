# shellcheck shell=bash
# The two tours of script/run. Uses its variables and functions, and narrate.sh.

# Every file of the tree $1, read from the volume by a tool that is not ours.
confirm_contents() {
    local tree=$1 volume=$2 count=0 file
    while IFS= read -r -d '' file; do
        ntfscat "$volume" "${file#"$tree"/}" 2>/dev/null | cmp -s - "$file" ||
            bad "ntfscat reads something else in ${file#"$tree"/}"
        count=$((count + 1))
    done < <(find "$tree" -type f -print0)
    good "ntfscat reads all $count files as they were written"
}

confirm_volume() {
    local volume=$1 said
    said=$(ntfsfix -n "$volume" 2>&1) || { printf '%s\n' "$said" && bad "ntfsfix found faults"; }
    grep -q "processed successfully" <<<"$said" || bad "ntfsfix did not get through"
    good "ntfsfix -n gets through the volume without a fault"
}

# Whether `tavelin mount`, going by what it said, failed for want of FUSE, or of leave to use it.
lacks_fuse() {
    [ ! -e /dev/fuse ] || grep -Eq '^fuse(rmount3)?: .*(not found|not permitted|denied)' "$1"
}

# A session on the mounted volume; where FUSE cannot be used, the same changes without a mount.
mounted_session() {
    local volume=$1 tree=$2 folder=$work/mount
    mkdir "$folder"
    cp -a "$tree/project/docs" "$tree/notes"
    if tavelin mount "$volume" "$folder" 2>"$work/why"; then
        good "mounted with: tavelin mount sample.img mount"
        try cp -a "$tree/notes" "$folder/"
        try mv "$folder/notes/macos.md" "$folder/notes/MacOS.md"
        try ls -l "$folder/notes"
        try grep -c flush "$folder/notes/durability.md"
        try df -h "$folder"
        try tavelin umount "$folder"
    elif ! lacks_fuse "$work/why"; then
        bad "tavelin mount failed: $(cat "$work/why")"
    else
        good "FUSE cannot be used here ($(head -n 1 "$work/why")), so without a mount:"
        try tavelin put "$volume" "$tree/notes" /
        try tavelin mv "$volume" notes/macos.md notes/MacOS.md
        try tavelin ls -l "$volume" notes
    fi
    mv "$tree/notes/macos.md" "$tree/notes/MacOS.md"
}

sample_tour() {
    local volume=$work/sample.img tree=$work/tree
    step "Make an NTFS volume of 256 MiB with mkntfs, and something to put on it"
    truncate -s 256M "$volume"
    quietly mkntfs --force --quick --quiet --label "Sample" "$volume"
    make_tree "$tree"
    try tavelin probe "$volume"
    good "$(find "$tree" -type f | wc -l) files in $(find "$tree" -type d | wc -l) directories"

    step "Copy the tree onto the volume, without mounting it"
    try tavelin put "$volume" "$tree/project" "$tree/awkward" "$tree/photos" /
    try tavelin ls -l "$volume" / photos awkward
    try tavelin info "$volume"

    step "Read it back and compare every byte"
    mkdir "$work/back"
    try tavelin get "$volume" / "$work/back"
    compare "$tree" "$work/back"

    step "Rename, link, remove; set and read a named stream"
    try tavelin mkdir -p "$volume" archive/1999
    try tavelin mv "$volume" "awkward/empty file" archive/1999/Empty.txt
    try tavelin mv "$volume" archive/1999/Empty.txt archive/1999/EMPTY.txt
    try tavelin ln -s "$volume" ../photos archive/pictures
    try tavelin readlink "$volume" archive/pictures
    try tavelin stat "$volume" archive/pictures/2026/IMG_0001.raw
    try tavelin xattr set "$volume" project/LICENSE origin "copied by script/run"
    try tavelin xattr list "$volume" project/LICENSE
    try tavelin xattr get "$volume" project/LICENSE origin
    try tavelin rm -r "$volume" project/script
    try tavelin label "$volume" "Confirmed"
    rm -r "$tree/project/script"
    mkdir -p "$tree/archive/1999"
    mv "$tree/awkward/empty file" "$tree/archive/1999/EMPTY.txt"

    step "Mount it, and use it like any folder"
    mounted_session "$volume" "$tree"

    step "Let independent tools confirm what is on the volume"
    grep -q "Volume Name: Confirmed" <<<"$(ntfsinfo -m "$volume" 2>/dev/null)" ||
        bad "ntfsinfo does not see the label"
    good "ntfsinfo sees the label \"Confirmed\""
    grep -qx "EMPTY.txt" <<<"$(ntfsls -p archive/1999 "$volume" 2>/dev/null)" ||
        bad "ntfsls does not see the renamed file"
    good "ntfsls sees archive/1999/EMPTY.txt"
    [ "$(ntfscat -n origin "$volume" project/LICENSE 2>/dev/null)" = "copied by script/run" ] ||
        bad "ntfscat does not see the stream"
    good "ntfscat sees the stream project/LICENSE:origin"
    confirm_contents "$tree" "$volume"
    confirm_volume "$volume"

    step "What the module noted"
    LINES_SHOWN=6 try tavelin events
    printf '\n%sAll of it worked.%s Try it yourself: %s --help\n' "$bold" "$plain" \
        "build/release/tavelin"
}

image_tour() {
    local volume=$1 write=$2 before="" folder
    step "Look at $volume, without changing anything"
    if [ -f "$volume" ]; then
        before=$(sha256sum <"$volume")
    fi
    try tavelin probe "$volume"
    try tavelin info "$volume"
    try tavelin ls -l "$volume"
    try tavelin check -n "$volume"
    LINES_SHOWN=6 try tavelin ls -R "$volume"
    if [ -n "$before" ]; then
        [ "$before" = "$(sha256sum <"$volume")" ] || bad "the image has changed"
        good "the image is the same, to the byte"
    fi
    if [ "$write" != yes ]; then
        printf '\nNothing was written. %s--write%s also tries that.\n' "$bold" "$plain"
        return
    fi

    folder=tavelin-run-$$
    step "Write a folder of our own, $folder, and read it back"
    mkdir "$work/tree"
    make_tree "$work/tree/$folder" 3000001
    try tavelin put "$volume" "$work/tree/$folder"
    mkdir "$work/back"
    try tavelin get "$volume" "$folder" "$work/back"
    compare "$work/tree" "$work/back"
    confirm_contents "$work/tree" "$volume"

    step "Take it away again"
    try tavelin rm -r "$volume" "$folder"
    confirm_volume "$volume"
    printf '\n%sAll of it worked.%s\n' "$bold" "$plain"
}

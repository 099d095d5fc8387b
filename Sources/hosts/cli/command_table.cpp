#include "hosts/cli/command_table.hpp"

#include <array>

namespace tavelin::cli {
namespace {

// The groups. The help lists them in the order of their first command.
constexpr std::string_view kLook = "Look at a volume";
constexpr std::string_view kCopy = "Copy in and out";
constexpr std::string_view kChange = "Change a volume";
constexpr std::string_view kMany = "Run several commands";
#ifdef TAVELIN_FUSE
constexpr std::string_view kMount = "Mount";
#endif
constexpr std::string_view kDiagnose = "Find out what happened";

constexpr std::array kCommands{
    Command{"probe", kLook, "Say whether an image holds an NTFS volume", "[--json] IMAGE",
            "probe disk.img\n"
            "probe disk.img:2  ## of a whole disk, the second partition\n"
            "probe --json /dev/sdb1",
            defineProbe},
    Command{"info", kLook, "Show label, state, sizes and counts", "[--stats] [--json] IMAGE",
            "info disk.img\n"
            "info --stats --json /dev/sdb1  ## with the I/O of reading all that, for a script",
            defineInfo},
    Command{"ls", kLook, "List directories",
            "[-laRhtSrd1p] [--streams] [--short-names] [--json] IMAGE [PATH...]",
            "ls disk.img\n"
            "ls -l disk.img photos/2026  ## sizes and times, too\n"
            "ls -lhS disk.img videos  ## the largest first\n"
            "ls -Ra --json disk.img  ## everything, hidden things included, for a script",
            defineList},
    Command{"stat", kLook, "Show all attributes of files", "[--json] IMAGE PATH...",
            "stat disk.img photos/a.jpg", defineStat},
    Command{"find", kLook, "Find files and directories by their names",
            "[--type f|d|l] [--json] IMAGE [PATTERN...]",
            "find disk.img '*.jpg'  ## anywhere\n"
            "find disk.img 'Photos/**/IMG_*'  ## below one directory\n"
            "find --type d disk.img 'backup*'",
            defineFind},
    Command{"tree", kLook, "Draw the tree of directories and files",
            "[-s | -h] [-L N] IMAGE [PATH...]",
            "tree disk.img\n"
            "tree -h -L 2 disk.img photos  ## with sizes, two levels",
            defineTree},
    Command{"du", kLook, "Sum up the space that directories take",
            "[-a] [-h] [-s] [--json] IMAGE [PATH...]",
            "du -h disk.img\n"
            "du -s disk.img photos letters",
            defineDu},
    Command{"df", kLook, "Show how much of the volume is used", "[-h] [--json] IMAGE",
            "df -h disk.img", defineDf},
    Command{"map", kLook, "Draw where on the volume data and free space are",
            "[--svg | --json] IMAGE [PATH]",
            "map disk.img\n"
            "map --svg disk.img > map.svg\n"
            "map disk.img videos/film.mkv  ## with the pieces that the file is in",
            defineMap},
    Command{"hash", kLook, "Print SHA-256 digests of files", "[--json] IMAGE PATH...",
            "hash disk.img photos > photos.sha256\n"
            "hash disk.img photos | sha256sum -c  ## compares with the copy in ./photos",
            defineHash},
    Command{"diff", kLook, "Compare directories of volumes and of this system",
            "[--with OTHER] [--quick] [--json] IMAGE PATH [DIR]",
            "diff disk.img /Photos ~/Photos  ## exit status 0 when they are the same\n"
            "diff --with backup.img disk.img /  ## two volumes",
            defineDiff},
    Command{"cat", kLook, "Write the contents of files to standard output", "IMAGE PATH...",
            "cat disk.img notes.txt\n"
            "cat disk.img setup.exe:Zone.Identifier  ## a named stream\n"
            "cat disk.img backup.tar.gz | tar tz",
            defineCat},
    Command{"readlink", kLook, "Print where a symbolic link points to", "[--json] IMAGE PATH...",
            "readlink disk.img latest", defineReadlink},
    Command{"check", kLook, "Examine a volume's structures and say what is wrong",
            "[--deep] [-q | -n | -y] [--json] IMAGE",
            "check disk.img\n"
            "check --deep /dev/sdb1  ## reads all files, too\n"
            "check --json disk.img  ## one JSON object a line: the findings, then a summary",
            defineCheck},
    Command{"get", kCopy, "Copy files and directories out of the volume",
            "[OPTIONS] IMAGE PATH... [TARGET]",
            "get disk.img photos  ## into the current directory\n"
            "get disk.img photos/a.jpg /tmp/b.jpg\n"
            "get disk.img / rescued  ## everything",
            defineGet},
    Command{"put", kCopy, "Copy files and directories into the volume",
            "[OPTIONS] IMAGE SOURCE... [TARGET]",
            "put disk.img ~/photos  ## into the volume's root\n"
            "put -t photos/2026 disk.img *.jpg\n"
            "tar c ~/notes | tavelin put disk.img - notes.tar",
            definePut},
    Command{"sync", kCopy, "Make a directory like one on the other side",
            "[OPTIONS] get|put IMAGE SOURCE TARGET",
            "sync put disk.img ~/photos photos  ## what is new or changed\n"
            "sync -n --delete get disk.img photos ~/photos  ## what would be done\n"
            "sync --exclude '*.tmp' put /dev/sdb1 . backup",
            defineSync},
#ifdef TAVELIN_ARCHIVE
    Command{"tar", kCopy, "Copy trees out and in as tar archives", "create|extract IMAGE [PATH...]",
            "tar create disk.img photos > photos.tar\n"
            "tar create disk.img / | ssh host 'cat > disk.tar'\n"
            "tar extract disk.img backup < photos.tar  ## into the directory \"backup\"\n"
            "tar c . | tavelin tar extract disk.img",
            defineTar},
#endif
    Command{"undelete", kCopy, "Copy files out that were deleted",
            "--list IMAGE | [--force] IMAGE ID TO",
            "undelete --list disk.img\n"
            "undelete disk.img 72-3 ./rescued.jpg  ## onto this system, never onto the volume",
            defineUndelete},
    Command{"mkdir", kChange, "Make directories", "[-p] IMAGE PATH...",
            "mkdir disk.img photos\n"
            "mkdir -p disk.img photos/2026/11  ## and what is missing above it",
            defineMkdir},
    Command{"rm", kChange, "Remove files and directories", "[-r] [-f] IMAGE PATH...",
            "rm disk.img notes.txt\n"
            "rm -r disk.img photos/2026  ## with everything in it",
            defineRemove},
    Command{"mv", kChange, "Rename or move files and directories",
            "[--replace] [-t DIR] IMAGE PATH... [TARGET]",
            "mv disk.img a.jpg b.jpg\n"
            "mv disk.img a.jpg c.jpg photos  ## into a directory",
            defineMove},
    Command{"ln", kChange, "Make a symbolic link", "-s IMAGE TARGET PATH",
            "ln -s disk.img photos/2026 latest  ## \"latest\" points to \"photos/2026\"",
            defineLink},
    Command{"xattr", kChange, "List, read, set and remove named streams",
            "[-R] [--json] list|get|set|rm IMAGE PATH [NAME [VALUE]]",
            "xattr list disk.img setup.exe\n"
            "xattr list -R disk.img /  ## of everything, as path:stream\n"
            "xattr get disk.img setup.exe Zone.Identifier\n"
            "xattr set disk.img notes.txt author Ada\n"
            "xattr set disk.img notes.txt thumbnail < small.png",
            defineXattr},
    Command{"label", kChange, "Show or change the volume's label", "[--json] IMAGE [NEW]",
            "label disk.img\n"
            "label disk.img \"Holiday photos\"",
            defineLabel},
    Command{"shell", kMany, "Type commands at an open volume", "[-o OPTIONS] [--read-only] IMAGE",
            "shell disk.img  ## cd, ls, get, put …, with completion; 'help' lists all\n"
            "shell --read-only /dev/sdb1",
            defineShell},
    Command{"batch", kMany, "Run the commands of a file on an open volume",
            "[-k] [-o OPTIONS] IMAGE [FILE]",
            "batch disk.img commands.txt\n"
            "printf 'mkdir new\\ncd new\\nput a.jpg\\n' | tavelin batch disk.img",
            defineBatch},
#ifdef TAVELIN_FUSE
    Command{"mount", kMount, "Make a volume's files appear below a directory",
            "[-o OPTIONS] [-r] [--foreground] [--trace] IMAGE DIR",
            "mount disk.img ~/disk\n"
            "mount -o ro,allow_other /dev/sdb1 /media/old\n"
            "mount --foreground --trace disk.img ~/disk  ## shows every request",
            defineMount},
    Command{"umount", kMount, "Write everything out and take the volume away again", "DIR",
            "umount ~/disk", defineUnmount},
    Command{"mounts", kMount, "Show what is mounted, where, and how", "[--json]", "mounts",
            defineMounts},
#endif
    Command{"events", kDiagnose, "Show the module's event log",
            "[-n N] [--follow] [--since OFFSET] [--json]",
            "events\n"
            "events --follow --json  ## new events as they come, one JSON object a line",
            defineEvents},
};

// A name finds its command by a linear search, which would never reach a second row of that name.
constexpr bool areNamesUnique() {
    for (std::size_t i = 0; i < kCommands.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (kCommands[i].name == kCommands[j].name) {
                return false;
            }
        }
    }
    return true;
}
static_assert(areNamesUnique());

// Every row has all its texts but examples, and a definition.
constexpr bool areRowsComplete() {
    for (const Command& row : kCommands) {
        if (row.name.empty() || row.group.empty() || row.summary.empty() || row.synopsis.empty() ||
            row.define == nullptr) {
            return false;
        }
    }
    return true;
}
static_assert(areRowsComplete());

} // namespace

std::span<const Command> commandTable() {
    return kCommands;
}

} // namespace tavelin::cli

// The index of every directory, against the records that its entries lead to.
#include "check/private/index_walk.hpp"
#include "check/private/passes.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace tavelin::check {
namespace {

using enum FindingClass;

// The bits that an index entry has from $STANDARD_INFORMATION: read-only, hidden, system, archive,
// temporary, sparse, reparse point, compressed, offline, not indexed, encrypted.
constexpr std::uint32_t kSharedFlags = 0x7f27;
constexpr std::uint32_t kDirectoryFlag = 0x10000000;

class DirectoryCheck {
  public:
    DirectoryCheck(Volume& volume, const File& directory)
        : volume_(volume), directory_(directory) {}

    void run() {
        IndexWalk(volume_, directory_, "$I30").run(Collation::fileName, [&](const IndexEntry& e) {
            FileName name;
            if (parseFileName(e.key(), name)) {
                visit(e.reference(), name);
            }
        });
    }

  private:
    void add(FindingClass kind, std::uint64_t record, const FileName& name,
             const std::string& expected, const std::string& found) {
        volume_.add(kind, record, expected, found,
                    volume_.reporter.wants(kind) ? entryPath(volume_, directory_.number, name)
                                                 : std::string());
    }

    void visit(std::uint64_t reference, const FileName& name) {
        const std::uint64_t number = ntb::reference_record(reference);
        RecordState* const state = volume_.table.find(number);
        // Before the entry is judged: a pass that looks for a file by its name must find it even
        // where the entry is wrong.
        rememberSpecial(number, name);
        if (name.parent() != directory_.reference()) {
            add(entryParent, number, name, fmt::format("directory {}", directory_.number),
                fmt::format("directory {} with sequence number {}",
                            ntb::reference_record(name.parent()),
                            ntb::reference_sequence(name.parent())));
        }
        if (state == nullptr) {
            add(entryFreeRecord, number, name, "a file record in use",
                fmt::format("record {} is free", number));
        } else if (state->sequence != ntb::reference_sequence(reference)) {
            add(entrySequence, number, name, fmt::format("sequence number {}", state->sequence),
                std::to_string(ntb::reference_sequence(reference)));
        } else if (state->has(RecordState::extension)) {
            add(entryWithoutName, number, name, "a file", "an extension record");
        } else {
            // The record added the hash of this name with the directory that it says. The sum comes
            // to 0 when names and entries are the same, in whatever order they were seen.
            state->names -= name.hash(directory_.reference());
            compare(number, *state, name);
        }
    }

    void compare(std::uint64_t number, const RecordState& state, const FileName& name) {
        const std::uint32_t flags = name.fileAttributes();
        const bool isDirectory = state.has(RecordState::directory);
        // Formatting programs set those of system files in one place only.
        const bool isShared = number < ntb::first_user_record ||
                              (flags & kSharedFlags) == (state.fileAttributes & kSharedFlags);
        if (!isShared || ((flags & kDirectoryFlag) != 0) != isDirectory) {
            add(entryFlags, number, name,
                fmt::format("{:#x}", (state.fileAttributes & kSharedFlags) |
                                         (isDirectory ? kDirectoryFlag : 0)),
                fmt::format("{:#x}", flags & (kSharedFlags | kDirectoryFlag)));
        }
        // Only a hash of the sizes is kept of each record. The sizes themselves are read again
        // where they differ.
        if (state.has(RecordState::comparesSizes) &&
            state.sizes != sizesHash(name.allocatedSize(), name.dataSize())) {
            reportSizes(number, name);
        }
    }

    void reportSizes(std::uint64_t number, const FileName& name) {
        std::string expected;
        File file;
        if (volume_.reporter.wants(entrySizes) && volume_.loadFile(number, file)) {
            if (const Attribute* const data = file.find(ntb::at_data)) {
                expected = fmt::format("{} of {} bytes", data->size(), allocatedBytes(*data));
            }
        }
        add(entrySizes, number, name, expected,
            fmt::format("{} of {} bytes", name.dataSize(), name.allocatedSize()));
    }

    /// What other passes look for by name.
    void rememberSpecial(std::uint64_t number, const FileName& name) {
        if (directory_.number == ntb::record_extend) {
            volume_.extendFiles.emplace(toText(name.name()), number);
        } else if (directory_.number == ntb::record_root && isNamed(name.name(), "hiberfil.sys")) {
            noteHibernation(number);
        }
    }

    void noteHibernation(std::uint64_t number) {
        File file;
        const Attribute* const data =
            volume_.loadFile(number, file) ? file.find(ntb::at_data) : nullptr;
        // Windows writes these letters when it hibernates and others when it resumes.
        const auto magic = data == nullptr ? std::nullopt : volume_.readAll(*data, 4);
        if (magic && magic->size() == 4 && (*magic)[0] != 0 &&
            (isText(*magic, "hibr") || isText(*magic, "HIBR"))) {
            volume_.report.notes.emplace_back(
                "Windows is hibernated on this volume and keeps a part of it in memory: free "
                "space, directories and files that it had open may look wrong here and be right "
                "there");
        }
    }

    static bool isText(const std::vector<std::uint8_t>& bytes, std::string_view text) {
        return std::equal(text.begin(), text.end(), bytes.begin(), bytes.end(),
                          [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
    }

    Volume& volume_;
    const File& directory_;
};

} // namespace

std::string entryPath(Volume& volume, std::uint64_t directory, const FileName& name) {
    const std::string path = volume.pathOf(directory);
    return (path == "/" ? "" : path) + "/" + toText(name.name());
}

void checkDirectories(Volume& volume) {
    volume.beginPhase("directories");
    volume.table.each(volume.recordCount(), [&](std::uint64_t number, const RecordState& state) {
        File file;
        if (state.has(RecordState::directory) && !state.has(RecordState::extension) &&
            volume.loadFile(number, file)) {
            DirectoryCheck(volume, file).run();
        }
    });
}

} // namespace tavelin::check

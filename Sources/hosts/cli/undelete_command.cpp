// undelete: files whose records are free and whose clusters may still have their bytes.
#include "check/record_reader.hpp"
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "hosts/cli/image_device.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"
#include "platform/file_descriptor.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>

namespace tavelin::cli {
namespace {

using check::FileRecord;
using check::RecordReader;

struct UndeleteCommand {
    VolumeArguments volume;
    std::optional<std::string> file;
    std::optional<std::string> target;
    bool list = false;
    bool force = false;
    bool json = false;
};

/// What can be said of a deleted file's bytes.
struct Remains {
    std::uint64_t clusters = 0;
    std::uint64_t taken = 0; ///< in use by other files now
    bool isDoubtful = false; ///< another deleted file had the same clusters
    bool isReadable = true;  ///< its records and run lists can be read, and it is stored plainly
};

/// The words of the answer. Programs rely on them.
std::string_view stateName(const Remains& remains) {
    if (!remains.isReadable) {
        return "unreadable";
    }
    if (remains.clusters > 0 && remains.taken == remains.clusters) {
        return "overwritten";
    }
    return remains.taken > 0 ? "partly-overwritten" : remains.isDoubtful ? "doubtful" : "free";
}

/// The deleted files of a volume.
class Deleted {
  public:
    explicit Deleted(RecordReader& reader) : reader_(reader) {
        auto bits = reader.bitmap();
        if (!bits) {
            throw Failure("the volume's list of clusters in use cannot be read");
        }
        bitmap_ = std::move(*bits);
        collectRuns();
    }

    /// A file that was deleted, with a name and content.
    static bool isCandidate(const FileRecord& record) {
        return !record.isInUse && !record.isDirectory && record.name() != nullptr &&
               record.content() != nullptr;
    }

    [[nodiscard]] Remains remainsOf(const FileRecord& record) const {
        const check::RecordExtents& content = *record.content();
        Remains remains;
        remains.isReadable = record.isWhole && content.isWhole && content.isPlain;
        for (const ntb::run& run : content.runs) {
            if (run.is_hole) {
                continue;
            }
            remains.clusters += run.length;
            for (std::uint64_t lcn = run.lcn; lcn < run.lcn + run.length; ++lcn) {
                remains.taken += (bitmap_[lcn / 8] >> (lcn % 8)) & 1u;
            }
            remains.isDoubtful |= isShared(run);
        }
        return remains;
    }

    /// Where the file was, as far as its directory is still the same one.
    std::string pathOf(const FileRecord& record) {
        const check::RecordName& name = *record.name();
        auto known = directories_.find(name.directory);
        if (known == directories_.end()) {
            const auto directory = reader_.record(name.directory);
            const bool isThere = directory && directory->isInUse && directory->isDirectory &&
                                 directory->sequence == name.directorySequence;
            known =
                directories_.emplace(name.directory, isThere ? reader_.pathOf(name.directory) : "")
                    .first;
        }
        return known->second.empty() ? "?/" + name.text : joined(known->second, name.text);
    }

  private:
    struct Run {
        std::uint64_t begin;
        std::uint64_t end;
        bool isShared = false;
    };

    /// Whether more than one deleted file had clusters of the run.
    [[nodiscard]] bool isShared(const ntb::run& run) const {
        const auto found =
            std::lower_bound(runs_.begin(), runs_.end(), run.lcn,
                             [](const Run& other, std::uint64_t lcn) { return other.begin < lcn; });
        return std::any_of(
            found,
            std::upper_bound(found, runs_.end(), run.lcn,
                             [](std::uint64_t lcn, const Run& other) { return lcn < other.begin; }),
            [&](const Run& other) { return other.end == run.lcn + run.length && other.isShared; });
    }

    void collectRuns() {
        ItemCount count;
        for (std::uint64_t number = 0; number < reader_.recordCount(); ++number) {
            throwIfInterrupted();
            count.add();
            const auto record = reader_.record(number);
            if (!record || !isCandidate(*record)) {
                continue;
            }
            for (const ntb::run& run : record->content()->runs) {
                if (!run.is_hole) {
                    runs_.push_back({run.lcn, run.lcn + run.length});
                }
            }
        }
        std::sort(runs_.begin(), runs_.end(), [](const Run& a, const Run& b) {
            return std::pair(a.begin, a.end) < std::pair(b.begin, b.end);
        });
        Run* reaching = nullptr; // the run before that goes furthest
        for (Run& run : runs_) {
            if (reaching != nullptr && run.begin < reaching->end) {
                run.isShared = reaching->isShared = true;
            }
            if (reaching == nullptr || run.end > reaching->end) {
                reaching = &run;
            }
        }
    }

    RecordReader& reader_;
    std::vector<std::uint8_t> bitmap_;
    std::vector<Run> runs_; ///< of all deleted files, by their first cluster
    std::map<std::uint64_t, std::string> directories_;
};

/// "72-3": record and sequence number, by which a record that was used again is recognised.
std::string idOf(const FileRecord& record) {
    return fmt::format("{}-{}", record.number, record.sequence);
}

void list(RecordReader& reader, bool json) {
    Deleted deleted(reader);
    for (std::uint64_t number = 0; number < reader.recordCount(); ++number) {
        throwIfInterrupted();
        const auto record = reader.record(number);
        if (!record || !Deleted::isCandidate(*record)) {
            continue;
        }
        const Remains remains = deleted.remainsOf(*record);
        const std::string path = deleted.pathOf(*record);
        if (json) {
            addItem(JSONObject()
                        .add("id", idOf(*record))
                        .add("path", path)
                        .add("size", record->content()->size)
                        .add("modified", isoTime(record->modified))
                        .add("state", stateName(remains))
                        .add("clusters", remains.clusters)
                        .add("clustersTaken", remains.taken));
        } else {
            print(fmt::format("{:<10} {:>14}  {}  {:<18}  {}\n", idOf(*record),
                              record->content()->size, humanTime(record->modified),
                              stateName(remains), shown(path)));
        }
    }
}

FileRecord recordOf(RecordReader& reader, const std::string& text) {
    std::uint64_t number = 0;
    std::uint16_t sequence = 0;
    const char* const end = text.data() + text.size();
    const auto first = std::from_chars(text.data(), end, number);
    const bool hasBoth = first.ec == std::errc() && first.ptr != end && *first.ptr == '-';
    const auto second = hasBoth ? std::from_chars(first.ptr + 1, end, sequence) : first;
    if (!hasBoth || second.ec != std::errc() || second.ptr != end) {
        throw Failure(escaped(text) + ": no ID such as 72-3: --list shows them",
                      ExitStatus::wrongUsage);
    }
    auto record = reader.record(number);
    if (!record || !Deleted::isCandidate(*record) || record->sequence != sequence) {
        throw ItemFailure(escaped(text) + ": no deleted file has this ID any more", text, kENOENT);
    }
    return std::move(*record);
}

void recover(RecordReader& reader, const UndeleteCommand& command) {
    Deleted deleted(reader);
    const FileRecord record = recordOf(reader, *command.file);
    const Remains remains = deleted.remainsOf(record);
    if (!remains.isReadable) {
        throw ItemFailure(*command.file + ": cannot be put together again: its list of clusters is "
                                          "incomplete, or it was compressed or encrypted");
    }
    if (remains.taken > 0 && !command.force) {
        throw ItemFailure(fmt::format("{}: {} of its {} clusters belong to other files now: "
                                      "--force copies what is there",
                                      *command.file, remains.taken, remains.clusters));
    }
    std::filesystem::path target = *command.target;
    if (std::filesystem::is_directory(target)) {
        const std::string& name = record.name()->text;
        if (name.find('/') != std::string::npos || name == "." || name == "..") {
            throw ItemFailure(escaped(name) + ": give the copy a name of its own");
        }
        target /= name;
    }
    FileDescriptor file(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0666);
    if (!file) {
        throwHostError(target.string());
    }
    // The content last read is that of recordOf(): deleted.remainsOf() reads no records.
    std::vector<std::uint8_t> buffer(kTransferBytes);
    const std::uint64_t size = record.content()->size;
    for (std::uint64_t offset = 0; offset < size;) {
        throwIfInterrupted();
        const std::size_t count = std::min<std::uint64_t>(buffer.size(), size - offset);
        const auto piece = std::span(buffer).first(count);
        if (const int error = reader.readContent(offset, piece); error != 0) {
            throwHostError(*command.file, error);
        }
        if (const int error = file.writeAt(piece.data(), count, offset).error; error != 0) {
            throwHostError(target.string(), error);
        }
        offset += count;
    }
    if (fsync(file.get()) != 0) {
        throwHostError(target.string());
    }
    if (command.json) {
        addItem(JSONObject()
                    .add("id", *command.file)
                    .add("target", target.string())
                    .add("size", size)
                    .add("state", stateName(remains)));
    } else {
        print(fmt::format("{}: {}, {}\n", shown(target.string()), humanSize(size),
                          remains.taken > 0    ? "with bytes of other files in it"
                          : remains.isDoubtful ? "doubtful: another deleted file had its clusters"
                                               : "its clusters are free: look whether it is "
                                                 "what you expect"));
    }
}

void runUndelete(const UndeleteCommand& command) {
    if (command.list == (command.file.has_value() || command.target.has_value()) ||
        command.file.has_value() != command.target.has_value()) {
        throw Failure("give --list, or the ID of a file and where to copy it to on this system",
                      ExitStatus::wrongUsage);
    }
    // Opened, so that nobody changes the volume meanwhile.
    withVolume(command.volume, Access::read, [&](Session& session) {
        const auto device = openDevice(session.place());
        std::string whyNot;
        const auto reader = RecordReader::open(*device, whyNot);
        if (!reader) {
            throw Failure(fmt::format("{}: {}", escaped(command.volume.image), whyNot));
        }
        command.list ? list(*reader, command.json) : recover(*reader, command);
    });
}

} // namespace

void defineUndelete(CLI::App& command) {
    const auto arguments = std::make_shared<UndeleteCommand>();
    addVolume(command, arguments->volume);
    addArgument(command, "ID", arguments->file, "Which file, as --list shows it");
    addArgument(command, "TO", arguments->target,
                "Where to copy it to on this system; nothing that is there is replaced");
    addFlag(command, "--list", arguments->list, "Show the files whose records are still there");
    addFlag(command, "--force", arguments->force, "Copy also what others have overwritten in part");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runUndelete(*arguments); });
}

} // namespace tavelin::cli

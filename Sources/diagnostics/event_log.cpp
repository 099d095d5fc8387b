#include "diagnostics/event_log.hpp"

#include "diagnostics/json.hpp"
#include "platform/assert.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/group_container.hpp"
#include "platform/information_dictionary.hpp"
#include "platform/utf8.hpp"

#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tavelin {

namespace {

/// The path of the previous generation.
std::filesystem::path previous(std::filesystem::path url) {
    return url += ".1";
}

/// Opens a log for reading or appending. Empty for a link, which could lead to any file that this
/// process may write, and for what is no regular file, which could block.
FileDescriptor openLog(const std::filesystem::path& path, int flags) {
    FileDescriptor file(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK, 0644);
    struct stat attributes {};
    if (file && (::fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode))) {
        file.reset();
    }
    return file;
}

std::optional<std::int64_t> fileSize(const std::filesystem::path& path) {
    struct stat attributes {};
    if (::stat(path.c_str(), &attributes) != 0) {
        return std::nullopt;
    }
    return attributes.st_size;
}

/// The file's bytes from `offset` on; an unreadable file counts as empty. An offset past the end
/// is set to 0, because the file has been replaced by a shorter one.
std::string bytesOf(const std::filesystem::path& path, std::uint64_t& offset) {
    const FileDescriptor file = openLog(path, O_RDONLY);
    struct stat attributes {};
    if (!file || ::fstat(file.get(), &attributes) != 0 ||
        std::cmp_greater(offset, attributes.st_size)) {
        offset = 0;
    }
    std::string bytes;
    if (!file || attributes.st_size <= 0) {
        return bytes;
    }
    // The size is read once: lines that arrive after it are for the next call.
    bytes.resize(static_cast<std::size_t>(attributes.st_size) - offset);
    const FileDescriptor::Transferred done = file.readAt(bytes.data(), bytes.size(), offset);
    if (done.error != 0) {
        // The next call begins again, so that a passing error loses no line for good.
        offset = 0;
        return {};
    }
    // Another process may have taken a half line back; the bytes read so far are valid.
    bytes.resize(done.bytes);
    return bytes;
}

std::string bytesOf(const std::filesystem::path& path) {
    std::uint64_t start = 0;
    return bytesOf(path, start);
}

/// Removes the last `written` bytes, so that the next line does not begin in the middle of this
/// one. Leaves them when another process has appended since: its line must survive.
void takeBack(int descriptor, std::size_t written) {
    // After a write with O_APPEND the offset is the end of what this descriptor wrote.
    const off_t end = ::lseek(descriptor, 0, SEEK_CUR);
    struct stat attributes {};
    if (end < 0 || ::fstat(descriptor, &attributes) != 0 || attributes.st_size != end) {
        return;
    }
    if (::ftruncate(descriptor, end - static_cast<off_t>(written)) != 0) {
        return; // the half line stays and spoils the next one
    }
}

/// The path of the process's log; absent when its group has no container.
std::optional<std::filesystem::path> moduleLog() {
    const auto group = informationText(mainInformationDictionary(), {"TVLLogGroup"});
    return group ? EventLog::groupFile(*group, "module.log") : std::nullopt;
}

bool tellsOfFailure(const Fields& fields) {
    const auto ok = fields.find("ok");
    const auto number = fields.find("errno");
    return (ok != fields.end() && ok->second == FieldValue(false)) ||
           (number != fields.end() && !(number->second == FieldValue(0)));
}

} // namespace

EventLog::EventLog(std::optional<std::filesystem::path> url, std::int64_t maxBytes, Clock now)
    : url_(std::move(url)), maxBytes_(maxBytes), now_(std::move(now)) {
    if (url_) {
        // A directory that cannot be made shows again at the first append, which drops its line.
        std::error_code ignored;
        std::filesystem::create_directories(url_->parent_path(), ignored);
    }
}

void EventLog::event(std::string_view name, const Fields& fields) noexcept {
    if (!url_) {
        return;
    }
    try {
        Fields record;
        for (const auto& [key, value] : fields) {
            record.insert_or_assign(repairUTF8(key), clean(value));
        }
        // These come last, so that no field of the caller can replace them.
        record.insert_or_assign("t", iso(now_()));
        record.insert_or_assign("ev", repairUTF8(name));
        record.insert_or_assign("pid", ::getpid());
        const auto line = jsonLine(record);
        if (!line) {
            return;
        }
        MutexLock lock(lock_);
        if (isHolding_ && name != notable_ && !tellsOfFailure(fields)) {
            if (std::ranges::find(alone_, name) != alone_.end()) {
                held_.clear();
                write(*line);
                return;
            }
            // The oldest ones go when a process reads for very long.
            constexpr std::size_t kHeldMax = 100;
            if (held_.size() == kHeldMax) {
                held_.erase(held_.begin());
            }
            held_.push_back(*line);
            TAVELIN_ASSERT(held_.size() <= kHeldMax);
            return;
        }
        isHolding_ = false;
        for (const std::string& earlier : std::exchange(held_, {})) {
            write(earlier);
        }
        write(*line);
    } catch (...) {
        // No memory, or a clock or a field's description that threw: the record is dropped.
    }
}

void EventLog::holdUntilFailure(std::string_view notable, std::vector<std::string> alone) {
    MutexLock lock(lock_);
    isHolding_ = true;
    notable_ = notable;
    alone_ = std::move(alone);
}

void EventLog::writeBy(std::function<void(std::string_view line)> writer) {
    MutexLock lock(lock_);
    writer_ = std::move(writer);
}

void EventLog::append(std::string_view line) noexcept {
    if (!url_) {
        return;
    }
    try {
        MutexLock lock(lock_);
        write(line);
    } catch (...) {
        // No memory for the name of the previous generation: the line is dropped.
    }
}

void EventLog::write(std::string_view line) const {
    if (writer_) {
        writer_(line);
        return;
    }
    // Another process may append between the check and the write. The file then passes its bound
    // by a line, which does no harm.
    if (const auto current = fileSize(*url_);
        current && *current + static_cast<std::int64_t>(line.size()) > maxBytes_) {
        rotate();
    }
    // Appending or making the file is one step, so that processes sharing the log cannot
    // overwrite each other's lines.
    // The log is best effort, so that a failed close loses at most lines.
    const FileDescriptor file = openLog(*url_, O_WRONLY | O_APPEND | O_CREAT);
    if (!file) {
        return;
    }
    // Fewer bytes than the line has, when the disk is full.
    if (const auto done = file.write(line.data(), line.size()); done.bytes < line.size()) {
        takeBack(file.get(), done.bytes);
    }
}

void EventLog::rotate() const {
    // Of two processes that rotate at once the second one moves a file of few lines, and the older
    // generation is lost. When renaming fails the file grows past its bound and loses no line.
    std::error_code ignored;
    std::filesystem::remove(previous(*url_), ignored);
    std::filesystem::rename(*url_, previous(*url_), ignored);
}

std::string EventLog::tail(std::int64_t maxBytes) const {
    if (!url_) {
        return {};
    }
    const auto limit = static_cast<std::size_t>(std::max<std::int64_t>(maxBytes, 0));
    std::string bytes;
    {
        MutexLock lock(lock_);
        bytes = bytesOf(*url_);
        if (bytes.size() < limit) {
            bytes.insert(0, bytesOf(previous(*url_)));
        }
    }
    if (bytes.size() > limit) {
        // The cut usually falls into a line, whose rest goes with its line feed.
        bytes.erase(0, bytes.size() - limit);
        if (const auto lineFeed = bytes.find('\n'); lineFeed != std::string::npos) {
            bytes.erase(0, lineFeed + 1);
        }
    }
    return repairUTF8(bytes);
}

EventLog::Chunk EventLog::read(std::uint64_t offset) const {
    if (!url_) {
        return {{}, 0};
    }
    // bytesOf() corrects the offset, so it is called before the sum below is formed. The sum counts
    // the file's bytes; the repaired text may be longer.
    MutexLock lock(lock_);
    const std::string bytes = bytesOf(*url_, offset);
    return {repairUTF8(bytes), offset + bytes.size()};
}

std::int64_t EventLog::size() const {
    return url_ ? fileSize(*url_).value_or(0) : 0;
}

std::optional<std::filesystem::path> EventLog::groupFile(const std::string& group,
                                                         const std::string& name) {
    const auto container = groupContainer(group);
    if (!container) {
        return std::nullopt;
    }
    return *container / "Library" / "Logs" / name;
}

FieldValue EventLog::clean(const FieldValue& value) {
    if (const auto* date = value.as<Date>()) {
        return iso(*date);
    }
    if (const auto* list = value.as<FieldValue::List>()) {
        FieldValue::List cleaned;
        cleaned.reserve(list->size());
        for (const FieldValue& entry : *list) {
            cleaned.push_back(clean(entry));
        }
        return cleaned;
    }
    if (const auto* map = value.as<FieldValue::Map>()) {
        FieldValue::Map cleaned;
        for (const auto& [key, entry] : *map) {
            cleaned.insert_or_assign(repairUTF8(key), clean(entry));
        }
        return cleaned;
    }
    if (const auto* text = value.as<std::string>()) {
        return repairUTF8(*text);
    }
    return value;
}

std::string EventLog::iso(Date date) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return {text, length};
}

EventLog& events() {
    // Never destroyed: events may still be written while the process exits.
    static EventLog& instance = *new EventLog(moduleLog());
    return instance;
}

} // namespace tavelin

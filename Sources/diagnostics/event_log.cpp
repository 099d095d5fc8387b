#include "diagnostics/event_log.hpp"

#include "diagnostics/private/json_line.hpp"
#include "platform/group_container.hpp"
#include "platform/information_dictionary.hpp"
#include "platform/utf8.hpp"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tavelin {

namespace {

/// Owns a descriptor; invalid when opening failed.
class Descriptor {
  public:
    Descriptor(const std::filesystem::path& path, int flags)
        : number_(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {}
    ~Descriptor() {
        if (valid()) {
            ::close(number_); // what was written is best effort, so is closing
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] bool valid() const { return number_ >= 0; }
    [[nodiscard]] int number() const { return number_; }

  private:
    int number_;
};

std::filesystem::path previous(std::filesystem::path url) {
    return url += ".1";
}

std::optional<std::int64_t> fileSize(const std::filesystem::path& path) {
    struct stat attributes {};
    if (::stat(path.c_str(), &attributes) != 0) {
        return std::nullopt;
    }
    return attributes.st_size;
}

/// The file's bytes from `offset` on; an unreadable file counts as empty. An offset past the end
/// counts as 0 and is corrected.
std::string bytesOf(const std::filesystem::path& path, std::uint64_t& offset) {
    const Descriptor file(path, O_RDONLY);
    struct stat attributes {};
    if (!file.valid() || ::fstat(file.number(), &attributes) != 0 ||
        std::cmp_greater(offset, attributes.st_size)) {
        offset = 0;
    }
    std::string bytes;
    if (!file.valid() || attributes.st_size <= 0) {
        return bytes;
    }
    bytes.resize(static_cast<std::size_t>(attributes.st_size) - offset);
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::pread(file.number(), bytes.data() + done, bytes.size() - done,
                                      static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            offset = 0;
            return {};
        }
        if (count == 0) {
            break; // cut short meanwhile: what was read stands
        }
        done += static_cast<std::size_t>(count);
    }
    bytes.resize(done);
    return bytes;
}

std::string bytesOf(const std::filesystem::path& path) {
    std::uint64_t start = 0;
    return bytesOf(path, start);
}

/// How many bytes of the line were written.
std::size_t writeLine(int descriptor, std::string_view line) {
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t count = ::write(descriptor, line.data() + done, line.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return done;
}

/// Takes the last `written` bytes back, so that the next line does not begin in the middle of
/// this one; unless somebody else has written since, whose line is worth more.
void takeBack(int descriptor, std::size_t written) {
    const off_t end = ::lseek(descriptor, 0, SEEK_CUR);
    struct stat attributes {};
    if (end < 0 || ::fstat(descriptor, &attributes) != 0 || attributes.st_size != end) {
        return;
    }
    if (::ftruncate(descriptor, end - static_cast<off_t>(written)) != 0) {
        return; // then the half line stays
    }
}

/// Where the process's log is; absent when its group has no container.
std::optional<std::filesystem::path> moduleLog() {
    const auto group = informationText(mainInformationDictionary(), {"TVLLogGroup"});
    return group ? EventLog::groupFile(*group, "module.log") : std::nullopt;
}

} // namespace

EventLog::EventLog(std::optional<std::filesystem::path> url, std::int64_t maxBytes, Clock now)
    : url_(std::move(url)), maxBytes_(maxBytes), now_(std::move(now)) {
    if (url_) {
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
        record.insert_or_assign("t", iso(now_()));
        record.insert_or_assign("ev", repairUTF8(name));
        record.insert_or_assign("pid", ::getpid());
        if (const auto line = jsonLine(record)) {
            append(*line);
        }
    } catch (...) {
        // No memory, or a clock or a field's description that threw: the record is dropped.
    }
}

void EventLog::append(std::string_view line) const {
    MutexLock lock(lock_);
    if (const auto current = fileSize(*url_);
        current && *current + static_cast<std::int64_t>(line.size()) > maxBytes_) {
        rotate();
    }
    // Appending or making the file is one step, so that processes sharing the log cannot
    // overwrite each other's lines.
    const Descriptor file(*url_, O_WRONLY | O_APPEND | O_CREAT);
    if (!file.valid()) {
        return;
    }
    if (const std::size_t written = writeLine(file.number(), line); written < line.size()) {
        takeBack(file.number(), written);
    }
}

void EventLog::rotate() const {
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

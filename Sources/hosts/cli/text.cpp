#include "hosts/cli/text.hpp"

#include "hosts/cli/session.hpp"
#include "platform/assert.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace tavelin::cli {
namespace {

struct CodeRange {
    char32_t first;
    char32_t last;
};

/// Ranges after Unicode's East_Asian_Width (W and F), joined where only unassigned characters lie
/// between.
constexpr CodeRange kWide[] = {
    {0x1100, 0x115F}, {0x2E80, 0x303E},   {0x3041, 0xA4CF},   {0xA960, 0xA97F},
    {0xAC00, 0xD7A3}, {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD},
};
/// Marks that are drawn over the character before them, and joiners.
constexpr CodeRange kNoWidth[] = {
    {0x0300, 0x036F}, {0x200B, 0x200D}, {0x20D0, 0x20FF}, {0x3099, 0x309A}, {0xFE00, 0xFE0F},
};

// Ranges in order and apart show that none was forgotten or entered twice.
template<std::size_t kCount>
constexpr bool areApart(const CodeRange (&ranges)[kCount]) {
    for (std::size_t i = 0; i < kCount; ++i) {
        if (ranges[i].first > ranges[i].last || (i > 0 && ranges[i - 1].last >= ranges[i].first)) {
            return false;
        }
    }
    return true;
}
static_assert(areApart(kWide));
static_assert(areApart(kNoWidth));

std::size_t columnsOf(char32_t code) {
    const auto contains = [&](const CodeRange& range) {
        return code >= range.first && code <= range.last;
    };
    if (std::any_of(std::begin(kNoWidth), std::end(kNoWidth), contains)) {
        return 0;
    }
    return std::any_of(std::begin(kWide), std::end(kWide), contains) ? 2 : 1;
}

std::tm brokenDown(std::time_t seconds, bool local) {
    std::tm result{};
    if ((local ? localtime_r(&seconds, &result) : gmtime_r(&seconds, &result)) == nullptr) {
        result = {}; // a year beyond what the host can say; shows as the year 1900
        result.tm_mday = 1;
    }
    return result;
}

/// As strftime(3) formats it, in fewer than 64 bytes.
std::string inFormat(const char* format, const std::tm& time) {
    std::array<char, 64> buffer;
    const std::size_t length = std::strftime(buffer.data(), buffer.size(), format, &time);
    TAVELIN_ASSERT(length > 0);
    return {buffer.data(), length};
}

} // namespace

std::string fitting(std::string_view text, std::size_t columns) {
    std::string result;
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        const std::size_t width = columnsOf(character.code.value_or(0));
        if (width > columns) {
            break;
        }
        columns -= width;
        result += character.bytes;
        text.remove_prefix(character.bytes.size());
    }
    return result;
}

std::string humanSize(std::uint64_t bytes) {
    if (bytes < 1024) {
        return fmt::format("{} {}", bytes, bytes == 1 ? "byte" : "bytes");
    }
    static constexpr std::array kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // 1023.95 and above would be rounded to "1024.0".
    while (value >= 1023.95 && unit + 1 < kUnits.size()) {
        value /= 1024;
        ++unit;
    }
    TAVELIN_ASSERT(unit < kUnits.size());
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string humanTime(const std::timespec& time, bool fraction) {
    const std::tm local = brokenDown(time.tv_sec, true);
    const std::string seconds = inFormat("%Y-%m-%d %H:%M:%S", local);
    return fraction ? fmt::format("{}.{:07} {}", seconds, time.tv_nsec / 100, inFormat("%z", local))
                    : seconds;
}

std::string isoTime(const std::timespec& time) {
    return fmt::format("{}.{:07}Z", inFormat("%Y-%m-%dT%H:%M:%S", brokenDown(time.tv_sec, false)),
                       time.tv_nsec / 100);
}

std::string modeText(fskit::FSItemType type, std::uint32_t mode) {
    // One letter for each type, at the number of the type.
    static constexpr std::string_view kLetters = "--dlpcbs";
    static_assert(kLetters.size() == static_cast<std::size_t>(fskit::FSItemType::socket) + 1);
    static_assert(kLetters[static_cast<std::size_t>(fskit::FSItemType::directory)] == 'd');
    static_assert(kLetters[static_cast<std::size_t>(fskit::FSItemType::symlink)] == 'l');
    static_assert(kLetters[static_cast<std::size_t>(fskit::FSItemType::blockDevice)] == 'b');
    std::string text(1, kLetters.at(static_cast<std::size_t>(type)));
    // From the owner's read bit down to the others' execute bit.
    for (unsigned bit = 9; bit-- > 0;) {
        text += ((mode >> bit) & 1u) != 0 ? "xwr"[bit % 3] : '-';
    }
    return text;
}

std::string_view typeName(fskit::FSItemType type) noexcept {
    switch (type) {
    case fskit::FSItemType::directory:
        return "directory";
    case fskit::FSItemType::symlink:
        return "symlink";
    case fskit::FSItemType::fifo:
        return "fifo";
    case fskit::FSItemType::charDevice:
        return "char-device";
    case fskit::FSItemType::blockDevice:
        return "block-device";
    case fskit::FSItemType::socket:
        return "socket";
    default:
        return "file";
    }
}

std::string shownTarget(const std::string& target, const fskit::FSItemAttributes& attributes) {
    if (!attributes.native().volumeLink) {
        return target;
    }
    // The relative form goes up to the root and then down, so all of its ".." stand in front.
    std::string_view rest = target;
    while (rest.starts_with("../")) {
        rest.remove_prefix(3);
    }
    return rest == ".." || rest == "." ? "/" : "/" + std::string(rest);
}

std::string lastComponent(std::string_view path) {
    const auto end = path.find_last_not_of('/');
    if (end == std::string_view::npos) {
        return {};
    }
    path = path.substr(0, end + 1);
    return std::string(path.substr(path.find_last_of('/') + 1)); // npos + 1 is 0
}

std::string rooted(std::string_view path) {
    std::string result;
    if (StandingVolume* const standing = StandingVolume::current();
        standing != nullptr && !path.starts_with('/')) {
        result = standing->session().volume().workingDirectory();
        result = result == "/" ? "" : result;
    }
    while (!path.empty()) {
        const std::size_t slash = std::min(path.find('/'), path.size());
        const std::string_view component = path.substr(0, slash);
        path.remove_prefix(std::min(slash + 1, path.size()));
        if (!component.empty() && component != ".") {
            result.append("/").append(component);
        }
    }
    return result.empty() ? "/" : result;
}

std::string joined(std::string_view directory, std::string_view name) {
    std::string path(directory);
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    return path.append(name);
}

} // namespace tavelin::cli

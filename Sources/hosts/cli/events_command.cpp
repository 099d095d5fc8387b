// events: the module's event log, as it is and as it grows.
#include "diagnostics/event_log.hpp"
#include "diagnostics/json.hpp"
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/failure.hpp"
#include "hosts/cli/file_watch.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/product.hpp"

#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavelin::cli {
namespace {

struct EventsCommand {
    bool follow = false;
    bool json = false;
    std::optional<std::uint64_t> since;
    std::optional<std::uint64_t> count; ///< of the last events
};

/// Bytes of the log that are shown without --since: some hundred events.
constexpr std::int64_t kTailBytes = 65'536;

/// What an event says in words, and what it says where its work has failed.
struct EventWords {
    std::string_view name;
    std::string_view done;
    std::string_view failed{};
};
constexpr EventWords kEventWords[] = {
    {"module_start", "the module began"},
    {"probe", "looked at an image"},
    {"load", "opened a volume", "could not open a volume"},
    {"activate", "gave out the root directory"},
    {"deactivate", "ended the work on a volume"},
    {"unload", "closed a volume", "could not close a volume as it should be"},
    {"check", "checked a volume", "checked a volume and failed"},
    {"sandbox", "went into the sandbox", "serves without a sandbox"},
    {"server_end", "the process that served a mount has ended"},
    {"journal_refused", "left out a flush that another system has written over"},
    {"device_error", "the device failed"},
};

/// A value in quotation marks where a blank would end it.
std::string quoted(const std::string& value) {
    if (!value.empty() && value.find_first_of(" \"") == std::string::npos) {
        return value;
    }
    std::string result = "\"";
    for (const char letter : value) {
        result += letter == '"' ? "\\\"" : std::string(1, letter);
    }
    return result + "\"";
}

/// How often requests were answered with which errors, such as "610 ENOENT"; absent for a
/// text that says nothing of the kind, or more than that.
std::optional<std::string> errorsInWords(const std::string& value) {
    const auto members = jsonMembers(value);
    if (!members) {
        return std::nullopt;
    }
    std::string counts;
    for (const auto& [key, member] : *members) {
        if (key == "counts") {
            for (const auto& [code, count] : jsonMembers(member).value_or(JSONMembers())) {
                std::int32_t number = 0;
                const char* const end = code.data() + code.size();
                if (std::from_chars(code.data(), end, number).ptr != end) {
                    return std::nullopt;
                }
                counts +=
                    fmt::format("{}{} {}", counts.empty() ? "" : ", ", count, errorName(number));
            }
        } else if (key != "first" || member != "[]") {
            return std::nullopt;
        }
    }
    return counts.empty() ? "none" : counts;
}

/// Formats an event as "2026-11-15T18:20:33Z  opened a volume  bsd=disk.img ok=true …". A line that
/// is no event, such as half a line of a full disk, comes back escaped.
std::string forPeople(const std::string& line) {
    const auto members = jsonMembers(line);
    if (!members) {
        return escaped(line);
    }
    std::string time = "?";
    std::string name = "?";
    std::string fields;
    bool hasFailed = false;
    for (const auto& [key, value] : *members) {
        if (key == "t" || key == "ev") {
            (key == "t" ? time : name) = escaped(value);
            continue;
        }
        hasFailed |= (key == "ok" && value == "false") || (key == "errno" && value != "0");
        const auto words = key == "errors" ? errorsInWords(value) : std::nullopt;
        fields += fmt::format(" {}={}", escaped(key), quoted(escaped(words.value_or(value))));
    }
    for (const EventWords& words : kEventWords) {
        if (words.name == name) {
            name = hasFailed && !words.failed.empty() ? words.failed : words.done;
            break;
        }
    }
    return fmt::format("{}  {}{}", painted(time, Colour::faint), painted(name, Colour::strong),
                       fields.empty() ? "" : " " + fields);
}

/// The last `count` lines of a text whose lines all end in a line feed.
std::string lastLines(const std::string& text, std::uint64_t count) {
    std::size_t start = text.size();
    for (std::uint64_t i = 0; i < count && start > 0; ++i) {
        const std::size_t before = start < 2 ? std::string::npos : text.rfind('\n', start - 2);
        start = before == std::string::npos ? 0 : before + 1;
    }
    return text.substr(start);
}

/// Prints the whole lines of a log that arrives in pieces. A line without its line feed stays in
/// pending_ until the rest has come.
class LinePrinter {
  public:
    explicit LinePrinter(bool json) : json_(json) {}

    void add(const std::string& text) {
        pending_ += text;
        std::size_t start = 0;
        for (std::size_t end; (end = pending_.find('\n', start)) != std::string::npos;
             start = end + 1) {
            const std::string line = pending_.substr(start, end - start);
            // On a terminal the log's own line could drive it: another program may have written it.
            print((json_ ? shown(line) : forPeople(line)) + "\n");
            any_ = true;
        }
        pending_.erase(0, start);
        // A reader of a pipe follows the log as well, so lines do not stay in the buffer.
        flushOutput();
    }
    [[nodiscard]] bool any() const noexcept { return any_; }

  private:
    const bool json_;
    bool any_ = false;
    std::string pending_; // a line that another process is still writing
};

void runEvents(const EventsCommand& command) {
    const auto file = EventLog::groupFile(product::kGroup, "module.log");
    if (!file) {
        throw Failure("there is no place for an event log: set HOME or TAVELIN_GROUP_CONTAINER");
    }
    LinePrinter printer(command.json);
    // Watching begins before the first reading. A change between the two is then a notification,
    // and is not missed.
    std::optional<FileWatch> watch;
    if (command.follow) {
        static_cast<void>(events()); // makes the directory
        watch.emplace(*file);
    }
    std::uint64_t offset = command.since.value_or(0);
    if (command.since) {
        EventLog::Chunk chunk = events().read(offset);
        offset = chunk.offset;
        printer.add(chunk.text);
    } else {
        // The size comes first. An event that is written before the tail is read then shows twice
        // rather than never.
        offset = static_cast<std::uint64_t>(events().size());
        printer.add(command.count
                        ? lastLines(events().tail(EventLog::kDefaultMaxBytes), *command.count)
                        : events().tail(kTailBytes));
    }
    // Ends by a signal, or by the Failure of a closed pipe.
    while (watch) {
        watch->wait();
        EventLog::Chunk chunk = events().read(offset);
        offset = chunk.offset;
        printer.add(chunk.text);
    }
    if (command.since && command.json) {
        print(fmt::format("{{\"offset\":{}}}\n", offset));
    } else if (command.since) {
        print(fmt::format("go on with: tavelin events --since {}\n", offset));
    } else if (!printer.any() && isOutputTerminal()) {
        print(fmt::format("no events yet in {}\n", escaped(file->string())));
    }
}

} // namespace

void defineEvents(CLI::App& command) {
    const auto arguments = std::make_shared<EventsCommand>();
    addFlag(command, "-f,--follow", arguments->follow, "Go on with new events as they come");
    addNumber(command, "-n", arguments->count, "N", "Only the last N events");
    addNumber(command, "--since", arguments->since, "OFFSET",
              "Only what was written after this byte of the log; also says where it ends");
    addFlag(command, "--json", arguments->json, "The log's own lines, one JSON object each");
    setWork(command, [arguments] { runEvents(*arguments); });
}

} // namespace tavelin::cli

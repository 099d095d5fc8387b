/// A small log of notable events (start, probe, load, activate, check, deactivate, unload, device
/// errors) for programs and people to read back: JSON lines in the container of the app group,
/// bounded in size. Several processes may append to one log.
///
/// Format: one object per line, keys sorted, one line feed at the end. Besides the caller's fields
/// it has "t" (when, such as 2026-11-15T18:20:33Z), "ev" (the event's name) and "pid"; these three
/// replace fields of the same name. When a line would take the file beyond its bound the file
/// becomes the one previous generation (".1" appended to its name) and the line begins a new one.
///
/// Text that is not valid UTF-8 is written with U+FFFD in place of each invalid sequence, so odd
/// names never cost a record. A record with a number that JSON cannot express (infinite, not a
/// number) is dropped.
///
/// Nothing here fails towards the caller: whatever the file system refuses is dropped. Any thread
/// may call anything; lines of threads never interleave and a rotation never splits a line.
#pragma once

#include "diagnostics/field_value.hpp"
#include "platform/clock.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin {

class EventLog {
  public:
    /// Bytes of the current file. With the previous generation a log takes about twice as much.
    static constexpr std::int64_t kDefaultMaxBytes = 1'000'000;

    /// Logs to the file `url`, whose directories are made when missing; without a file the log
    /// stays inert for good. `maxBytes` bounds the current file. `now` is called once per event, on
    /// the thread that logs it. No descriptor is kept between calls.
    explicit EventLog(std::optional<std::filesystem::path> url,
                      std::int64_t maxBytes = kDefaultMaxBytes, Clock now = currentDate);

    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /// Appends one event. Opens and closes the file each time: for rare events only.
    void event(std::string_view name, const Fields& fields = {}) noexcept;

    /// From now on events wait in memory until one tells of a failure ("ok" is false, or "errno" is
    /// not 0) or is called `notable`; then they are written, and nothing waits any more. An event
    /// that is called one of `alone` is written by itself, and drops those that waited before it.
    /// What still waits when the process ends is dropped: reading a volume without an error is no
    /// news, and would push mounts, changes and errors out of the log.
    void holdUntilFailure(std::string_view notable, std::vector<std::string> alone = {});

    /// From now on gives each line, with its line feed, to `writer`: for a process that may not
    /// open the file. `writer` is called under the log's lock, logs nothing and must not throw.
    void writeBy(std::function<void(std::string_view line)> writer);
    /// Appends a whole line, with its line feed, that another process's log has made.
    void append(std::string_view line) noexcept;

    /// The last whole lines that fit in `maxBytes` bytes, reaching back into the previous
    /// generation if the current file is shorter. A last line longer than that is cut at its start.
    [[nodiscard]] std::string tail(std::int64_t maxBytes) const;

    struct Chunk {
        std::string text;
        /// In bytes of the file; the argument for the next read().
        std::uint64_t offset;
    };

    /// The current file's content from byte `offset` on. A file that is shorter than `offset` has
    /// been rotated and is read from its start. To follow the log, begin with 0 and pass the
    /// offset of each answer to the next call. The last line may be incomplete while another
    /// process writes it.
    [[nodiscard]] Chunk read(std::uint64_t offset) const;

    /// Size of the current file in bytes, 0 when it cannot be told.
    [[nodiscard]] std::int64_t size() const;

    /// The path of a group's log file of this name; absent when the group has no container. The
    /// file need not exist.
    [[nodiscard]] static std::optional<std::filesystem::path> groupFile(const std::string& group,
                                                                        const std::string& name);

    /// The value as JSON can hold it: dates become their `iso` text and text valid UTF-8, in
    /// lists and maps at every depth (also a map's keys).
    [[nodiscard]] static FieldValue clean(const FieldValue& value);

    /// UTC to the second, such as 2026-11-15T18:20:33Z.
    [[nodiscard]] static std::string iso(Date date);

  private:
    /// Hands one whole line to the writer, or appends it, after a rotation where it would not fit.
    void write(std::string_view line) const TAVELIN_REQUIRES(lock_);
    /// The current file becomes the previous generation.
    void rotate() const TAVELIN_REQUIRES(lock_);

    const std::optional<std::filesystem::path> url_; ///< absent: the log is inert
    const std::int64_t maxBytes_;
    const Clock now_;
    /// Serialises every access to the files from this process. A leaf.
    mutable Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::devices);
    bool isHolding_ TAVELIN_GUARDED_BY(lock_) = false;
    std::string notable_ TAVELIN_GUARDED_BY(lock_);
    std::vector<std::string> alone_ TAVELIN_GUARDED_BY(lock_);
    std::vector<std::string> held_ TAVELIN_GUARDED_BY(lock_); ///< whole lines, oldest first
    std::function<void(std::string_view)> writer_ TAVELIN_GUARDED_BY(lock_); ///< may be empty
};

/// The process's event log, "module.log" of the group that the information dictionary names under
/// "TVLLogGroup"; made on first use.
[[nodiscard]] EventLog& events();

} // namespace tavelin

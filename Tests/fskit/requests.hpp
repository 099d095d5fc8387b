// Requests as calls: each sends one request, checks that it was answered exactly once before it
// returned, and answers what the handler was given.
#pragma once

#include "fskit/api/file_system.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace tavelin::test {

// 0 for success, the POSIX number of a failure, -1 for an error of another domain.
inline std::int64_t codeOf(const fskit::MaybeError& error) {
    return !error ? 0 : error->isPOSIX() ? error->code() : -1;
}

template<typename... Values>
struct Answer {
    std::tuple<Values...> values;
    fskit::MaybeError error;

    std::int64_t code() const { return codeOf(error); }
    // The first value, which must be there.
    const auto& operator*() const {
        EXPECT_EQ(code(), 0);
        return std::get<0>(values);
    }
};

template<typename... Values, typename Request>
Answer<Values...> ask(const Request& request) {
    int answers = 0;
    Answer<Values...> answer;
    using Reply = std::function<void(Values..., fskit::MaybeError)>;
    request(Reply([&](Values... values, fskit::MaybeError error) {
        ++answers;
        answer.values = std::tuple<Values...>(std::move(values)...);
        answer.error = std::move(error);
    }));
    EXPECT_EQ(answers, 1);
    return answer;
}

struct Entry {
    std::string name;
    fskit::FSItemType type;
    fskit::FSItemID id;
    fskit::FSDirectoryCookie next;
    std::optional<fskit::FSItemAttributes> attributes;
};

// Takes up to `room` entries.
class Page final : public fskit::FSDirectoryEntryPacker {
  public:
    explicit Page(std::size_t room = SIZE_MAX) : room_(room) {}

    bool packEntry(const fskit::FSFileName& name, fskit::FSItemType type, fskit::FSItemID id,
                   fskit::FSDirectoryCookie next, const fskit::FSItemAttributes* attrs) override {
        if (entries.size() == room_) {
            return false;
        }
        entries.push_back(
            {name.data(), type, id, next, attrs ? std::optional(*attrs) : std::nullopt});
        return true;
    }

    // "name>cookie", to compare whole pages by.
    std::vector<std::string> names() const {
        std::vector<std::string> list;
        for (const Entry& entry : entries) {
            list.push_back(entry.name + ">" + std::to_string(entry.next));
        }
        return list;
    }

    std::vector<Entry> entries;

  private:
    std::size_t room_;
};

inline std::span<const std::byte> bytesOf(std::string_view text) {
    return std::as_bytes(std::span(text));
}

// What a test says to one volume.
template<typename Volume>
class Requests {
  public:
    using Item = fskit::FSItemRef;
    using Name = fskit::FSFileName;
    using Named = std::optional<Name>;

    explicit Requests(Volume& volume) : volume_(volume) {}

    auto lookup(const Item& directory, std::string_view name) {
        return ask<Item, Name>(
            [&](auto reply) { volume_.lookupItem(Name(name), directory, reply); });
    }
    auto create(const Item& directory, std::string_view name,
                fskit::FSItemType type = fskit::FSItemType::file,
                fskit::FSItemSetAttributesRequest&& attributes = {}) {
        return create(directory, name, type, attributes);
    }
    auto create(const Item& directory, std::string_view name, fskit::FSItemType type,
                fskit::FSItemSetAttributesRequest& attributes) {
        return ask<Item, Name>([&](auto reply) {
            volume_.createItem(Name(name), type, directory, attributes, reply);
        });
    }
    auto symlink(const Item& directory, std::string_view name, std::string_view target,
                 fskit::FSItemSetAttributesRequest&& attributes = {}) {
        return ask<Item, Name>([&](auto reply) {
            volume_.createSymbolicLink(Name(name), directory, attributes, Name(target), reply);
        });
    }
    auto link(const Item& item, const Item& directory, std::string_view name) {
        return ask<Named>(
            [&](auto reply) { volume_.createLink(item, Name(name), directory, reply); });
    }
    auto readlink(const Item& item) {
        return ask<Named>([&](auto reply) { volume_.readSymbolicLink(item, reply); });
    }
    auto remove(const Item& item, const Item& directory, std::string_view name) {
        return ask<>([&](auto reply) { volume_.removeItem(item, Name(name), directory, reply); });
    }
    auto rename(const Item& item, const Item& from, std::string_view name, const Item& to,
                std::string_view newName, const Item& over = nullptr) {
        return ask<Named>([&](auto reply) {
            volume_.renameItem(item, from, Name(name), Name(newName), to, over, reply);
        });
    }
    auto attributes(const Item& item) {
        return ask<std::optional<fskit::FSItemAttributes>>(
            [&](auto reply) { volume_.getAttributes({}, item, reply); });
    }
    auto setAttributes(const Item& item, fskit::FSItemSetAttributesRequest& changes) {
        return ask<std::optional<fskit::FSItemAttributes>>(
            [&](auto reply) { volume_.setAttributes(changes, item, reply); });
    }
    auto list(const Item& directory, Page& page, fskit::FSDirectoryCookie cookie = 0,
              fskit::FSDirectoryVerifier verifier = 0, bool withAttributes = false) {
        const fskit::FSItemGetAttributesRequest wanted;
        return ask<fskit::FSDirectoryVerifier>([&](auto reply) {
            volume_.enumerateDirectory(directory, cookie, verifier,
                                       withAttributes ? &wanted : nullptr, page, reply);
        });
    }
    // The bytes read as text, in second place.
    auto read(const Item& item, std::int64_t offset, std::size_t length,
              std::size_t room = 1 << 20) {
        std::string text(room, '\0');
        fskit::FSMutableFileDataBuffer buffer(std::as_writable_bytes(std::span(text)));
        const auto counted = ask<std::size_t>(
            [&](auto reply) { volume_.read(item, offset, length, buffer, reply); });
        text.resize(std::get<0>(counted.values));
        return Answer<std::string>{{text}, counted.error};
    }
    auto write(const Item& item, std::int64_t offset, std::string_view text) {
        return ask<std::size_t>(
            [&](auto reply) { volume_.write(bytesOf(text), item, offset, reply); });
    }
    auto xattr(const Item& item, std::string_view name) {
        return ask<std::vector<std::byte>>(
            [&](auto reply) { volume_.getXattr(Name(name), item, reply); });
    }
    auto setXattr(const Item& item, std::string_view name, std::optional<std::string_view> value,
                  fskit::FSSetXattrPolicy policy = fskit::FSSetXattrPolicy::alwaysSet) {
        const auto bytes = value ? std::optional(bytesOf(*value)) : std::nullopt;
        return ask<>([&](auto reply) { volume_.setXattr(Name(name), bytes, item, policy, reply); });
    }
    auto xattrs(const Item& item) {
        return ask<std::vector<Name>>([&](auto reply) { volume_.listXattrs(item, reply); });
    }
    auto open(const Item& item) {
        return ask<>(
            [&](auto reply) { volume_.openItem(item, fskit::FSVolumeOpenModesRead, reply); });
    }
    auto close(const Item& item, fskit::FSVolumeOpenModes left = 0) {
        return ask<>([&](auto reply) { volume_.closeItem(item, left, reply); });
    }
    auto reclaim(const Item& item) {
        return ask<>([&](auto reply) { volume_.reclaimItem(item, reply); });
    }
    auto activate(const std::vector<std::string>& options = {}) {
        return ask<Item>([&](auto reply) { volume_.activate({options}, reply); });
    }
    auto mount() {
        return ask<>([&](auto reply) { volume_.mount({}, reply); });
    }
    void unmount() {
        int answers = 0;
        volume_.unmount([&] { ++answers; });
        EXPECT_EQ(answers, 1);
    }
    auto synchronize(fskit::FSSyncFlags flags = fskit::FSSyncFlags::wait) {
        return ask<>([&](auto reply) { volume_.synchronize(flags, reply); });
    }
    auto deactivate() {
        return ask<>([&](auto reply) { volume_.deactivate(0, reply); });
    }
    auto setName(std::string_view name) {
        return ask<Named>([&](auto reply) { volume_.setVolumeName(Name(name), reply); });
    }

  private:
    Volume& volume_;
};

} // namespace tavelin::test

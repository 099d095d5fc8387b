// Requests in short words: what a test says to one volume.
#pragma once

#include "fskit/tavelin_volume.hpp"
#include "support/bytes.hpp"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace tavelin::test {

// 0 for success, the POSIX number of a failure, -1 for an error of another domain.
inline std::int64_t codeOf(const std::optional<fskit::Error>& error) {
    return !error ? 0 : error->isPOSIX() ? error->code() : -1;
}
template<typename Value>
std::int64_t codeOf(const Outcome<Value>& outcome) {
    return outcome ? 0 : codeOf(std::optional(outcome.error()));
}

// An outcome that a test may take for granted.
template<typename Value>
struct Answer {
    Outcome<Value> outcome;

    std::int64_t code() const { return codeOf(outcome); }
    const Value& operator*() const {
        EXPECT_EQ(code(), 0);
        return *outcome;
    }
    const Value* operator->() const { return &**this; }
};
template<typename Value>
Answer(Outcome<Value>) -> Answer<Value>;

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

inline Outcome<fskit::FSItemRef> itemOf(const Outcome<fskit::FSLookupItemResult>& found) {
    return found ? Outcome(found->foundItem) : found.error();
}
inline Outcome<fskit::FSItemRef> itemOf(const Outcome<fskit::FSCreateItemResult>& made) {
    return made ? Outcome(made->newItem) : made.error();
}

class Requests {
  public:
    using Item = fskit::FSItemRef;
    using Name = fskit::FSFileName;

    explicit Requests(TavelinVolume& volume) : volume_(volume) {}

    Answer<Item> lookup(const Item& directory, std::string_view name) {
        return {itemOf(volume_.lookupItem(Name(name), directory))};
    }
    Answer<Item> create(const Item& directory, std::string_view name,
                        fskit::FSItemType type = fskit::FSItemType::file,
                        fskit::FSItemSetAttributesRequest&& attributes = {}) {
        return create(directory, name, type, attributes);
    }
    Answer<Item> create(const Item& directory, std::string_view name, fskit::FSItemType type,
                        fskit::FSItemSetAttributesRequest& attributes) {
        return {itemOf(volume_.createItem(Name(name), type, directory, attributes))};
    }
    Answer<Item> symlink(const Item& directory, std::string_view name, std::string_view target) {
        fskit::FSItemSetAttributesRequest none;
        return {itemOf(volume_.createSymbolicLink(Name(name), directory, none, Name(target)))};
    }
    auto link(const Item& item, const Item& directory, std::string_view name) {
        return Answer{volume_.createLink(item, Name(name), directory)};
    }
    auto readlink(const Item& item) { return Answer{volume_.readSymbolicLink(item)}; }
    std::int64_t remove(const Item& item, const Item& directory, std::string_view name) {
        return codeOf(volume_.removeItem(item, Name(name), directory));
    }
    auto rename(const Item& item, const Item& from, std::string_view name, const Item& to,
                std::string_view newName, const Item& over = nullptr) {
        return Answer{volume_.renameItem(item, from, Name(name), Name(newName), to, over)};
    }
    auto attributes(const Item& item) { return Answer{volume_.getAttributes({}, item)}; }
    auto setAttributes(const Item& item, fskit::FSItemSetAttributesRequest& changes) {
        return Answer{volume_.setAttributes(changes, item)};
    }
    auto list(const Item& directory, Page& page, fskit::FSDirectoryCookie cookie = 0,
              fskit::FSDirectoryVerifier verifier = 0, bool withAttributes = false) {
        const fskit::FSItemGetAttributesRequest wanted;
        return Answer{volume_.enumerateDirectory(directory, cookie, verifier,
                                                 withAttributes ? &wanted : nullptr, page)};
    }
    // The bytes read, as text.
    Answer<std::string> read(const Item& item, std::int64_t offset, std::size_t length,
                             std::size_t room = 1 << 20) {
        std::string text(room, '\0');
        fskit::FSMutableFileDataBuffer buffer(std::as_writable_bytes(std::span(text)));
        const auto count = volume_.read(item, offset, length, buffer);
        if (!count) {
            return {count.error()};
        }
        text.resize(*count);
        return {text};
    }
    auto write(const Item& item, std::int64_t offset, std::string_view text) {
        const auto written = volume_.write(bytesOf(text), item, offset, nullptr);
        return Answer{written ? Outcome(written->bytesWritten) : written.error()};
    }
    auto xattr(const Item& item, std::string_view name) {
        return Answer{volume_.getXattr(Name(name), item)};
    }
    std::int64_t setXattr(const Item& item, std::string_view name,
                          std::optional<std::string_view> value,
                          fskit::FSSetXattrPolicy policy = fskit::FSSetXattrPolicy::alwaysSet) {
        const auto bytes = value ? std::optional(bytesOf(*value)) : std::nullopt;
        return codeOf(volume_.setXattr(Name(name), bytes, item, policy));
    }
    auto xattrs(const Item& item) { return Answer{volume_.listXattrs(item)}; }
    std::int64_t open(const Item& item) {
        return codeOf(volume_.openItem(item, fskit::FSVolumeOpenModesRead));
    }
    void close(const Item& item, fskit::FSVolumeOpenModes left = 0) {
        volume_.closeItem(item, left);
    }
    void reclaim(const Item& item) { volume_.reclaimItem(item); }
    auto activate(const std::vector<std::string>& options = {}) {
        return Answer{volume_.activate({options})};
    }
    void unmount() { volume_.unmount(); }
    std::int64_t synchronize(fskit::FSSyncFlags flags = fskit::FSSyncFlags::wait) {
        return codeOf(volume_.synchronize(flags));
    }
    std::int64_t deactivate() { return codeOf(volume_.deactivate(0)); }
    std::int64_t setName(std::string_view name) {
        return codeOf(volume_.setVolumeName(Name(name)));
    }

  private:
    TavelinVolume& volume_;
};

} // namespace tavelin::test

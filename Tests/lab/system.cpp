#include "lab/system.hpp"

#include "support/bytes.hpp"

#include <stdexcept>

namespace tavelin::test {

namespace {

constexpr std::uint32_t kHidden = 0x8000;

std::string readAll(VolumeClient& volume, const ItemRef& item, std::uint64_t offset,
                    std::size_t length) {
    std::vector<std::byte> buffer(length);
    buffer.resize(volume.read(item, offset, buffer).get());
    return textOf(buffer);
}

Ticks ticks(const std::timespec& time) {
    return time.tv_sec * 10'000'000 + time.tv_nsec / 100;
}

fskit::FSItemSetAttributesRequest timesOf(const Operation& op) {
    using Request = fskit::FSItemSetAttributesRequest;
    static constexpr std::array kSetters{&Request::setAccessTime, &Request::setModifyTime,
                                         &Request::setChangeTime, &Request::setBirthTime};
    Request changes;
    for (std::size_t kind = 0; kind < kTimeKinds; ++kind) {
        if ((op.seed >> kind & 1) != 0) {
            (changes.*kSetters[kind])({.tv_sec = op.number, .tv_nsec = op.other});
        }
    }
    return changes;
}

// Without following links.
ItemRef walk(VolumeClient& volume, const std::string& path) {
    ItemRef item = volume.root().duplicate();
    for (const std::filesystem::path& name : std::filesystem::path(path).relative_path()) {
        item = volume.lookup(item, name.string()).get().item;
    }
    return item;
}

void rename(VolumeClient& volume, const Operation& op) {
    const ItemRef from = walk(volume, directoryOf(op.path));
    const ItemRef item = volume.lookup(from, nameOf(op.path)).get().item;
    const ItemRef to = walk(volume, directoryOf(op.text));
    auto over = volume.lookup(to, nameOf(op.text));
    ItemRef none;
    volume.rename(item, from, nameOf(op.path), to, nameOf(op.text), over ? over->item : none).get();
}

void exchange(VolumeClient& volume, const Operation& op) {
    const ItemRef directory = walk(volume, directoryOf(op.path));
    const ItemRef item = volume.lookup(directory, nameOf(op.path)).get().item;
    const ItemRef otherDirectory = walk(volume, directoryOf(op.text));
    const ItemRef other = volume.lookup(otherDirectory, nameOf(op.text)).get().item;
    volume.requests()
        .exchange(item.item(), directory.item(), fskit::FSFileName(nameOf(op.path)), other.item(),
                  otherDirectory.item(), fskit::FSFileName(nameOf(op.text)))
        .get();
}

Answer onItem(VolumeClient& volume, const Operation& op) {
    const ItemRef item = walk(volume, op.path);
    const fskit::FSItemType type = volume.attributes(item).get().type();
    const bool link = type == fskit::FSItemType::symlink;
    const auto offset = static_cast<std::uint64_t>(op.number);
    fskit::FSItemSetAttributesRequest changes;
    switch (op.verb) {
    case Verb::lookup:
        return {.data = std::to_string(static_cast<int>(type))};
    case Verb::readlink:
        return {.data = volume.readSymbolicLink(item).get()};
    case Verb::write:
    case Verb::read:
    case Verb::truncate:
    case Verb::allocate:
        if (link) {
            return {.error = kEINVAL}; // hosts never send data requests for links
        }
        if (op.verb == Verb::read) {
            return {.data = readAll(volume, item, offset, static_cast<std::size_t>(op.other))};
        }
        if (op.verb == Verb::write) {
            const std::string content = pattern(op.seed, op.other);
            return {.data = std::to_string(volume.write(item, offset, bytesOf(content)).get())};
        }
        if (op.verb == Verb::allocate) {
            volume.requests()
                .allocate(item.item(), offset, static_cast<std::uint64_t>(op.other),
                          static_cast<NTFSAllocation>(op.seed))
                .get();
            return {};
        }
        changes.setSize(offset);
        volume.setAttributes(item, changes).get();
        return {};
    case Verb::times:
        changes = timesOf(op);
        volume.setAttributes(item, changes).get();
        return {};
    case Verb::hide:
        changes.setFlags(op.number != 0 ? kHidden : 0);
        volume.setAttributes(item, changes).get();
        return {};
    case Verb::setStream: {
        const std::string value = pattern(op.seed, op.other);
        volume
            .setXattr(item, op.text, bytesOf(value),
                      static_cast<fskit::FSSetXattrPolicy>(op.number))
            .get();
        return {};
    }
    case Verb::getStream:
        return {.data = textOf(volume.getXattr(item, op.text).get())};
    default:
        throw std::logic_error("not an operation on an item");
    }
}

} // namespace

Answer carryOut(VolumeClient& volume, const Operation& op) {
    const std::string directory = directoryOf(op.path);
    const std::string name = nameOf(op.path);
    switch (op.verb) {
    case Verb::create: {
        fskit::FSItemSetAttributesRequest attributes;
        attributes.setSize(static_cast<std::uint64_t>(op.other));
        attributes.setFlags(op.number != 0 ? kHidden : 0);
        volume.create(walk(volume, directory), name, fskit::FSItemType::file, attributes).get();
        return {};
    }
    case Verb::mkdir:
        volume.create(walk(volume, directory), name, fskit::FSItemType::directory).get();
        return {};
    case Verb::symlink:
        volume.createSymbolicLink(walk(volume, directory), name, op.text).get();
        return {};
    case Verb::remove: {
        const ItemRef parent = walk(volume, directory);
        const ItemRef item = volume.lookup(parent, name).get().item;
        volume.remove(item, parent, name).get();
        return {};
    }
    case Verb::rename:
        rename(volume, op);
        return {};
    case Verb::link: {
        const ItemRef item = walk(volume, op.path);
        volume.linkInternal(item, walk(volume, directoryOf(op.text)), nameOf(op.text)).get();
        return {};
    }
    case Verb::exchange:
        exchange(volume, op);
        return {};
    case Verb::sync:
        volume.synchronize().get();
        return {};
    case Verb::trim:
        volume.requests().trim({}, [] { return true; }).get();
        return {};
    default:
        return onItem(volume, op);
    }
}

ItemState observe(VolumeClient& volume, const std::string& path) {
    const ItemRef item = walk(volume, path);
    const fskit::FSItemAttributes seen = volume.attributes(item).get();
    ItemState state{.kind = static_cast<ItemKind>(seen.type()),
                    .size = seen.size(),
                    .linkCount = seen.linkCount(),
                    .hidden = seen.flags() == kHidden,
                    .times = {ticks(seen.accessTime()), ticks(seen.modifyTime()),
                              ticks(seen.changeTime()), ticks(seen.birthTime())}};
    if (state.kind == ItemKind::directory) {
        for (const DirectoryEntry& entry : volume.list(item, false).get()) {
            state.entries[entry.name] = static_cast<ItemKind>(entry.type);
        }
    } else if (state.kind == ItemKind::symlink) {
        state.content = volume.readSymbolicLink(item).get();
    } else {
        state.content = readAll(volume, item, 0, seen.size() + 1);
    }
    for (const std::string& name : volume.listXattrs(item).get()) {
        state.streams[name] = textOf(volume.getXattr(item, name).get());
    }
    return state;
}

System::System(const std::filesystem::path& image, const ModuleHost::Options& options)
    : System([image, options] { return ModuleHost::openImage(image, options); }) {}

void System::reload() {
    if (volume().liveItems() != 1) {
        throw std::logic_error("items are left over besides the root");
    }
    host_->close().get();
    host_.reset();
    host_ = open_();
}

Answer System::apply(const Operation& op) {
    try {
        if (op.verb == Verb::reload) {
            reload();
            return {};
        }
        return carryOut(volume(), op);
    } catch (const fskit::Error& error) {
        return {.error = static_cast<std::int32_t>(error.code())};
    }
}

} // namespace tavelin::test

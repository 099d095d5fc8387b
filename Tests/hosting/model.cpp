#include "model.hpp"

#include <algorithm>
#include <chrono>

namespace tavelin::test {

namespace {

std::uint64_t utf16Units(const std::string& text) {
    std::uint64_t units = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        units += (byte & 0xC0) != 0x80 ? 1 : 0;
        units += byte >= 0xF0 ? 1 : 0;
    }
    return units;
}

// Before 1970 the volume reports whole seconds only.
Ticks asReported(Ticks ticks) {
    return ticks < 0 ? ticks / 10'000'000 * 10'000'000 : ticks;
}

} // namespace

Ticks nowTicks() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() / 100;
}

Model::Model(bool windowsNames) : windowsNames_(windowsNames), root_(std::make_unique<Node>()) {
    root_->kind = ItemKind::directory;
    root_->parent = root_.get();
    root_->hidden = true; // so mkntfs leaves it
    for (Time& time : root_->times) {
        time.mayBeOlder = true; // made by mkntfs: anything up to now
    }
}

Model::Place Model::find(const std::string& path) const {
    const std::vector<std::string> components = pathComponents(path);
    Place place{.directory = root_.get(), .node = root_.get()};
    for (const std::string& name : components) {
        if (place.error != 0 || place.node == nullptr) {
            return {.error = place.error != 0 ? place.error : kENOENT};
        }
        place.directory = place.node;
        place.name = name;
        if (place.node->kind != ItemKind::directory) {
            place.error = kENOTDIR;
            place.node = nullptr;
            continue;
        }
        const auto found = place.directory->children.find(name);
        place.node = found == place.directory->children.end() ? nullptr : found->second.get();
    }
    return place;
}

std::int32_t Model::newNameError(const std::string& name) const {
    if (windowsNames_ && (name.back() == '.' || name.find(':') != std::string::npos)) {
        return kEINVAL;
    }
    if (name == "." || name == "..") {
        return kEINVAL;
    }
    return utf16Units(name) > 255 ? kENAMETOOLONG : 0;
}

void Model::touch(Node& node, std::initializer_list<TimeKind> kinds, bool maybe) {
    for (const TimeKind kind : kinds) {
        Time& time = node.times[kind];
        if (maybe && !time.known) {
            continue; // the bounds that it has hold still
        }
        time.earliest = nowTicks() - 100'000; // the system's coarse clock lags some ticks behind
        time.mayBeOlder = maybe;
        time.known = false;
    }
}

Answer Model::apply(const Operation& op) {
    switch (op.verb) {
    case Verb::create:
        return make(op, ItemKind::file);
    case Verb::mkdir:
        return make(op, ItemKind::directory);
    case Verb::symlink:
        return make(op, ItemKind::symlink);
    case Verb::remove:
        return remove(op);
    case Verb::rename:
        return rename(op);
    case Verb::sync:
    case Verb::reload:
        return {};
    default:
        break;
    }
    const Place place = find(op.path);
    if (place.node == nullptr) {
        return {.error = place.error != 0 ? place.error : kENOENT};
    }
    switch (op.verb) {
    case Verb::lookup:
        return {.data = std::to_string(static_cast<int>(place.node->kind))};
    case Verb::write:
    case Verb::read:
    case Verb::truncate:
    case Verb::readlink:
        return data(op, *place.node);
    case Verb::setStream:
    case Verb::getStream:
        return stream(op, *place.node);
    default:
        return metadata(op, *place.node);
    }
}

Answer Model::make(const Operation& op, ItemKind kind) {
    const Place place = find(op.path);
    if (place.directory == nullptr) {
        return {.error = place.error};
    }
    if (kind == ItemKind::symlink && op.text.empty()) {
        return {.error = kEINVAL};
    }
    if (const std::int32_t error = newNameError(place.name); error != 0) {
        return {.error = error};
    }
    if (place.error != 0) {
        return {.error = place.error};
    }
    if (place.node != nullptr) {
        return {.error = kEEXIST};
    }
    auto node = std::make_unique<Node>();
    node->kind = kind;
    node->parent = place.directory;
    if (kind == ItemKind::symlink) {
        node->content = op.text;
    } else if (kind == ItemKind::file) {
        node->content.resize(static_cast<std::size_t>(op.other));
        node->hidden = op.number != 0;
    }
    touch(*node, {accessTime, modifyTime, changeTime, birthTime});
    touch(*place.directory, {accessTime, modifyTime, changeTime}, true);
    place.directory->children[place.name] = std::move(node);
    return {};
}

Answer Model::remove(const Operation& op) {
    const Place place = find(op.path);
    if (place.error != 0) {
        return {.error = place.error};
    }
    if (place.node == nullptr) {
        return {.error = kENOENT};
    }
    if (!place.node->children.empty()) {
        return {.error = kENOTEMPTY};
    }
    touch(*place.directory, {accessTime, modifyTime, changeTime}, true);
    place.directory->children.erase(place.name);
    return {};
}

Answer Model::rename(const Operation& op) {
    const Place from = find(op.path);
    const Place to = find(op.text);
    if (from.node == nullptr) {
        return {.error = from.error != 0 ? from.error : kENOENT};
    }
    if (to.directory == nullptr) {
        return {.error = to.error};
    }
    if (from.directory == to.directory && from.name == to.name) {
        return {};
    }
    if (const std::int32_t error = newNameError(to.name); error != 0) {
        return {.error = error};
    }
    if (from.node->kind == ItemKind::directory) {
        for (const Node* above = to.directory; above != root_.get(); above = above->parent) {
            if (above == from.node) {
                return {.error = kEINVAL};
            }
        }
    }
    if (to.node != nullptr && to.node != from.node) {
        const bool directory = from.node->kind == ItemKind::directory;
        if (directory != (to.node->kind == ItemKind::directory)) {
            return {.error = directory ? kENOTDIR : kEISDIR};
        }
        if (!to.node->children.empty()) {
            return {.error = kENOTEMPTY};
        }
    }
    if (to.error != 0) {
        return {.error = to.error};
    }
    touch(*from.directory, {accessTime, modifyTime, changeTime}, true);
    touch(*to.directory, {accessTime, modifyTime, changeTime}, true);
    touch(*from.node, {changeTime});
    std::unique_ptr<Node> moved = std::move(from.directory->children[from.name]);
    from.directory->children.erase(from.name);
    moved->parent = to.directory;
    to.directory->children[to.name] = std::move(moved);
    return {};
}

Answer Model::data(const Operation& op, Node& node) {
    if (op.verb == Verb::readlink) {
        return node.kind == ItemKind::symlink ? Answer{.data = node.content}
                                              : Answer{.error = kEINVAL};
    }
    if (op.verb == Verb::truncate && node.kind == ItemKind::directory) {
        return {}; // a size that is set on what has none is ignored
    }
    if (node.kind == ItemKind::symlink) {
        return {.error = kEINVAL}; // hosts never send data requests for links
    }
    if (op.verb == Verb::write && op.other == 0) {
        return {.data = "0"}; // of whatever
    }
    if (node.kind == ItemKind::directory) {
        return {.error = kEISDIR};
    }
    const auto at = static_cast<std::size_t>(op.number);
    const auto length = static_cast<std::size_t>(op.other);
    if (op.verb == Verb::read) {
        return {.data = at < node.content.size() ? node.content.substr(at, length) : ""};
    }
    if (op.verb == Verb::truncate) {
        if (at != node.content.size()) {
            node.content.resize(at);
            touch(node, {modifyTime, changeTime});
        }
        return {};
    }
    node.content.resize(std::max(node.content.size(), at + length));
    node.content.replace(at, length, pattern(op.seed, op.other));
    touch(node, {modifyTime, changeTime});
    return {.data = std::to_string(length)};
}

Answer Model::metadata(const Operation& op, Node& node) {
    if (op.verb == Verb::hide) {
        node.hidden = op.number != 0;
        return {};
    }
    const Ticks ticks = asReported(op.number * 10'000'000 + op.other / 100);
    for (std::size_t kind = 0; kind < kTimeKinds; ++kind) {
        if ((op.seed >> kind & 1) != 0) {
            node.times[kind] = {.exact = ticks, .known = true};
        }
    }
    return {};
}

Answer Model::stream(const Operation& op, Node& node) {
    enum Policy : std::int64_t { always, mustCreate, mustReplace, drop };
    const auto found = node.streams.find(op.text);
    const bool exists = found != node.streams.end();
    if (op.verb == Verb::getStream) {
        return exists ? Answer{.data = found->second} : Answer{.error = kENOATTR};
    }
    if (op.number == drop) {
        if (!exists) {
            return {.error = kENOATTR};
        }
        node.streams.erase(found);
        touch(node, {changeTime});
        return {};
    }
    if (node.kind == ItemKind::symlink) {
        return {.error = kEPERM};
    }
    if (exists ? op.number == mustCreate : op.number == mustReplace) {
        return {.error = exists ? kEEXIST : kENOATTR};
    }
    node.streams[op.text] = pattern(op.seed, op.other);
    touch(node, {changeTime});
    return {};
}

Tree Model::tree(const std::string& from) const {
    Tree tree;
    collect(*find(from).node, from, tree);
    return tree;
}

void Model::collect(const Node& node, const std::string& path, Tree& tree) {
    tree.items.push_back(path);
    if (node.kind == ItemKind::directory) {
        tree.directories.push_back(path);
    }
    for (const auto& [name, child] : node.children) {
        collect(*child, joined(path, name), tree);
    }
}

std::string Model::disagreement(const std::string& path, const ItemState& seen) {
    static constexpr std::array kTimeNames{"access", "modify", "change", "birth"};
    Node& node = *find(path).node;
    std::map<std::string, ItemKind> entries;
    for (const auto& [name, entry] : node.children) {
        entries[name] = entry->kind;
    }
    const bool directory = node.kind == ItemKind::directory;
    const std::uint64_t size =
        node.kind == ItemKind::symlink ? utf16Units(node.content) : node.content.size();
    std::string text;
    const auto expect = [&](bool agrees, const std::string& what) {
        text += agrees ? "" : path + ": " + what + "\n";
    };
    expect(seen.kind == node.kind, "kind");
    expect(directory || seen.size == size,
           "size " + std::to_string(seen.size) + ", not " + std::to_string(size));
    expect(seen.linkCount == (directory ? 2 : 1), "link count " + std::to_string(seen.linkCount));
    expect(seen.hidden == node.hidden, "hidden");
    expect(seen.content == node.content, "content");
    expect(seen.streams == node.streams, "streams");
    expect(seen.entries == entries, "entries");
    for (std::size_t kind = 0; kind < kTimeKinds; ++kind) {
        Time& time = node.times[kind];
        const Ticks ticks = seen.times[kind];
        const bool asBefore = (time.known || time.mayBeOlder) && ticks == time.exact;
        const bool fresh = !time.known && ticks >= time.earliest && ticks <= nowTicks();
        expect(asBefore || fresh, std::string(kTimeNames[kind]) + " time " + std::to_string(ticks) +
                                      ", not " + std::to_string(time.exact));
        time = {.exact = ticks, .known = true};
    }
    return text;
}

} // namespace tavelin::test

#include "lab/model.hpp"

#include "core/values.hpp"

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

Model::Model(bool windowsNames) : windowsNames_(windowsNames) {
    names_["/"] = next_;
    Node& root = nodes_[next_++];
    root = {.kind = ItemKind::directory, .hidden = true}; // so mkntfs leaves it
    for (Time& time : root.times) {
        time.mayBeOlder = true; // made by mkntfs: anything up to now
    }
}

std::vector<std::string> Model::below(const std::string& directory) const {
    const std::string prefix = directory == "/" ? directory : directory + "/";
    std::vector<std::string> paths;
    for (auto at = names_.upper_bound(prefix); at != names_.end() && at->first.starts_with(prefix);
         ++at) {
        paths.push_back(at->first);
    }
    return paths;
}

std::int32_t Model::absence(const std::string& path) const {
    std::string above = path;
    while (!has(above)) {
        above = directoryOf(above);
    }
    return at(above).kind == ItemKind::directory ? kENOENT : kENOTDIR;
}

std::int32_t Model::newNameError(const std::string& path) const {
    const std::string name = nameOf(path);
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

void Model::touchDirectoryOf(const std::string& path) {
    touch(at(directoryOf(path)), {accessTime, modifyTime, changeTime}, true);
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
        return remove(op.path);
    case Verb::rename:
        return rename(op.path, op.text);
    case Verb::link:
        return link(op.path, op.text);
    case Verb::exchange:
        return exchange(op.path, op.text);
    case Verb::sync:
    case Verb::trim:
    case Verb::reload:
    case Verb::cut:
        return {};
    default:
        break;
    }
    if (!has(op.path)) {
        return {.error = absence(op.path)};
    }
    Node& node = at(op.path);
    switch (op.verb) {
    case Verb::lookup:
        return {.data = std::to_string(static_cast<int>(node.kind))};
    case Verb::write:
    case Verb::read:
    case Verb::truncate:
    case Verb::readlink:
        return data(op, node);
    case Verb::allocate:
        return allocate(op, node);
    case Verb::setStream:
    case Verb::getStream:
        return stream(op, node);
    default:
        return metadata(op, node);
    }
}

std::uint32_t Model::countNames(const std::string& path) const {
    const std::size_t item = names_.at(path);
    return static_cast<std::uint32_t>(
        std::ranges::count_if(names_, [&](const auto& name) { return name.second == item; }));
}

std::int32_t Model::newItemError(const std::string& path) const {
    if (has(directoryOf(path))) {
        if (const std::int32_t error = newNameError(path); error != 0) {
            return error;
        }
        if (has(path)) {
            return kEEXIST;
        }
        return absence(path) == kENOTDIR ? kENOTDIR : 0;
    }
    return absence(path);
}

Answer Model::make(const Operation& op, ItemKind kind) {
    if (kind == ItemKind::symlink && op.text.empty() && has(directoryOf(op.path))) {
        return {.error = kEINVAL};
    }
    if (const std::int32_t error = newItemError(op.path); error != 0) {
        return {.error = error};
    }
    names_[op.path] = next_;
    Node& node = nodes_[next_++] = {.kind = kind};
    if (kind == ItemKind::symlink) {
        node.content = op.text;
    } else if (kind == ItemKind::file) {
        node.content.resize(static_cast<std::size_t>(op.other));
        node.hidden = op.number != 0;
    }
    touch(node, {accessTime, modifyTime, changeTime, birthTime});
    touchDirectoryOf(op.path);
    return {};
}

Answer Model::remove(const std::string& path) {
    if (!has(path) || !below(path).empty()) {
        return {.error = has(path) ? kENOTEMPTY : absence(path)};
    }
    touchDirectoryOf(path);
    unname(path);
    return {};
}

Answer Model::link(const std::string& path, const std::string& name) {
    if (!has(path)) {
        return {.error = absence(path)};
    }
    const std::int32_t error = newItemError(name);
    if (at(path).kind == ItemKind::directory && (error == 0 || error == kEEXIST)) {
        return {.error = kEPERM};
    }
    if (error != 0) {
        return {.error = error};
    }
    names_[name] = names_.at(path);
    touch(at(path), {changeTime}, true);
    touchDirectoryOf(name);
    return {};
}

void Model::unname(const std::string& name) {
    const std::size_t item = names_.at(name);
    touch(at(name), {changeTime}, true);
    if (countNames(name) == 1) {
        nodes_.erase(item);
    }
    names_.erase(name);
}

void Model::move(const std::string& from, const std::string& to) {
    std::vector<std::string> moving = below(from);
    moving.push_back(from);
    for (const std::string& path : moving) {
        auto moved = names_.extract(path);
        moved.key() = to + path.substr(from.size());
        names_.insert(std::move(moved));
    }
}

Answer Model::rename(const std::string& from, const std::string& to) {
    for (const std::string& needed : {from, directoryOf(to)}) {
        if (!has(needed)) {
            return {.error = absence(needed)};
        }
    }
    if (from == to) {
        return {};
    }
    if (const std::int32_t error = newNameError(to); error != 0) {
        return {.error = error};
    }
    const bool directory = at(from).kind == ItemKind::directory;
    if (!has(to) && absence(to) == kENOTDIR) {
        return {.error = kENOTDIR};
    }
    if (directory && to.starts_with(from + "/")) {
        return {.error = kEINVAL};
    }
    if (has(to) && directory != (at(to).kind == ItemKind::directory)) {
        return {.error = directory ? kENOTDIR : kEISDIR};
    }
    if (!below(to).empty()) {
        return {.error = kENOTEMPTY};
    }
    if (has(to) && names_.at(from) == names_.at(to)) {
        return {.error = kEEXIST}; // two names of one file
    }
    touchDirectoryOf(from);
    touchDirectoryOf(to);
    touch(at(from), {changeTime});
    if (has(to)) {
        unname(to);
    }
    move(from, to);
    return {};
}

Answer Model::exchange(const std::string& one, const std::string& other) {
    for (const std::string& needed : {one, other}) {
        if (!has(needed)) {
            return {.error = absence(needed)};
        }
    }
    if (one == other || names_.at(one) == names_.at(other)) {
        return {};
    }
    if (other.starts_with(one + "/") || one.starts_with(other + "/")) {
        return {.error = kEINVAL};
    }
    for (const std::string& path : {one, other}) {
        touchDirectoryOf(path);
        touch(at(path), {changeTime}, true);
    }
    const std::string aside = "//"; // no path
    move(one, aside);
    move(other, one);
    move(aside, other);
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

Answer Model::allocate(const Operation& op, Node& node) {
    if (node.kind != ItemKind::file) {
        return {.error = node.kind == ItemKind::directory ? kEISDIR : kEINVAL};
    }
    const auto how = static_cast<NTFSAllocation>(op.seed);
    const auto begin = static_cast<std::size_t>(op.number);
    const auto end = begin + static_cast<std::size_t>(op.other);
    std::string& content = node.content;
    if (how == NTFSAllocation::reserve || how == NTFSAllocation::zero) {
        content.resize(std::max(content.size(), end));
    }
    const bool isZeroed = how != NTFSAllocation::reserve && how != NTFSAllocation::reserveBehindEnd;
    if (isZeroed && begin < content.size()) {
        std::fill(content.begin() + op.number,
                  content.begin() + static_cast<std::ptrdiff_t>(std::min(end, content.size())), 0);
    }
    touch(node, {modifyTime, changeTime}, true);
    return {};
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
    Tree tree{.items = {from}, .directories = {from}};
    for (const std::string& path : below(from)) {
        tree.items.push_back(path);
        if (at(path).kind == ItemKind::directory) {
            tree.directories.push_back(path);
        }
    }
    return tree;
}

std::string Model::disagreement(const std::string& path, const ItemState& seen) {
    static constexpr std::array kTimeNames{"access", "modify", "change", "birth"};
    Node& node = at(path);
    std::map<std::string, ItemKind> entries;
    for (const std::string& entry : below(path)) {
        if (directoryOf(entry) == path) {
            entries[nameOf(entry)] = at(entry).kind;
        }
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
    expect(seen.linkCount == (directory ? 2 : countNames(path)),
           "link count " + std::to_string(seen.linkCount));
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

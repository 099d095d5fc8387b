#include "hosting/paths.hpp"

#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <deque>

namespace tavelin {

namespace {

/// The components that count, first to last.
std::deque<std::string> split(std::string_view path) {
    std::deque<std::string> components;
    while (!path.empty()) {
        const std::size_t slash = std::min(path.find('/'), path.size());
        const std::string_view component = path.substr(0, slash);
        if (!component.empty() && component != ".") {
            components.emplace_back(component);
        }
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
    return components;
}

/// Those from the root on.
std::deque<std::string> split(const VolumeClient& volume, std::string_view path) {
    std::deque<std::string> components = split(path);
    if (!path.starts_with('/')) {
        const std::deque<std::string> above = split(volume.workingDirectory());
        components.insert(components.begin(), above.begin(), above.end());
    }
    return components;
}

/// The way from the root to where a path has led so far.
class Walker {
  public:
    explicit Walker(VolumeClient& volume) : volume_(volume) {}

    std::optional<fskit::Error> go(std::deque<std::string> components, LastLink last) {
        while (!components.empty()) {
            const std::string name = std::move(components.front());
            components.pop_front();
            // Taken back on the way itself, not looked up: ".." behind a link leads to the
            // directory above the link's target, and above the root there is the root.
            if (name == "..") {
                if (!path_.empty()) {
                    path_.pop_back();
                }
                continue;
            }
            auto found = volume_.lookup(here(), name);
            if (!found) {
                return found.error();
            }
            const bool link = found->attributes.type() == fskit::FSItemType::symlink;
            if (!link || (components.empty() && last == LastLink::keep)) {
                path_.push_back(std::move(*found));
                continue;
            }
            if (auto error = follow(*found, components)) {
                return error;
            }
        }
        return std::nullopt;
    }

    [[nodiscard]] const ItemRef& here() const {
        return path_.empty() ? volume_.root() : path_.back().item;
    }

    Outcome<Found> end() {
        if (path_.empty()) {
            return volume_.rootWithAttributes();
        }
        return std::move(path_.back());
    }

  private:
    /// Puts a link's target in front of what is still to go.
    std::optional<fskit::Error> follow(const Found& link, std::deque<std::string>& components) {
        // Counted over the whole path: links that lead to each other need not nest.
        if (++links_ > kLinkDepthMax) {
            return fskit::fs_errorForPOSIXError(kELOOP);
        }
        const auto target = volume_.readSymbolicLink(link.item);
        if (!target) {
            return target.error();
        }
        // An absolute target begins at the volume's root, as no other root is known here.
        if (target->starts_with('/')) {
            path_.clear();
        }
        const std::deque<std::string> steps = split(*target);
        components.insert(components.begin(), steps.begin(), steps.end());
        return std::nullopt;
    }

    VolumeClient& volume_;
    std::vector<Found> path_; // below the root
    int links_ = 0;
};

} // namespace

Outcome<Found> resolve(VolumeClient& volume, std::string_view path, LastLink last) {
    Walker walker(volume);
    if (const auto error = walker.go(split(volume, path), last)) {
        return *error;
    }
    return walker.end();
}

Outcome<Location> locate(VolumeClient& volume, std::string_view path) {
    const std::deque<std::string> own = split(path);
    if (own.empty() || own.back() == "..") {
        return fskit::fs_errorForPOSIXError(kEINVAL);
    }
    std::deque<std::string> components = split(volume, path);
    std::string name = std::move(components.back());
    TAVELIN_ASSERT(!name.empty() && name != "." && name != "..");
    components.pop_back();
    Walker walker(volume);
    if (const auto error = walker.go(std::move(components), LastLink::follow)) {
        return *error;
    }
    return Location{walker.here().duplicate(), std::move(name)};
}

} // namespace tavelin

#include "explore/explore.hpp"

#include "lab/host_disk.hpp"
#include "lab/structural_check.hpp"

#include <algorithm>
#include <istream>
#include <numeric>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace tavelin::test {

namespace {

constexpr std::size_t kItemsMax = 12; // with the root
constexpr std::int64_t kBytesMax = 70'000;
constexpr std::size_t kStepsMax = 64; // of a walk
constexpr int kCandidates = 24;       // operations considered for a step
constexpr int kStaleStepsMax = 8;     // that led to nothing new
constexpr std::size_t kStartsMax = 48;
constexpr std::size_t kScriptMax = 1000;            // of a start
constexpr std::size_t kStepsBetweenComparisons = 4; // of everything

std::uint64_t mixed(std::uint64_t value) {
    value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9ull;
    value = (value ^ value >> 27) * 0x94d049bb133111ebull;
    return value ^ value >> 31;
}

std::uint64_t hashOf(std::initializer_list<std::uint64_t> parts) {
    return std::accumulate(parts.begin(), parts.end(), std::uint64_t{1},
                           [](std::uint64_t sum, std::uint64_t part) {
                               return mixed(sum * 0x9e3779b97f4a7c15ull + part);
                           });
}

// By the limits at which a volume keeps bytes in another way.
std::uint64_t sizeClass(std::size_t size) {
    static constexpr std::array<std::size_t, 6> kLimits{0, 100, 700, 4096, 16'384, 65'536};
    return static_cast<std::uint64_t>(std::ranges::lower_bound(kLimits, size) - kLimits.begin());
}

std::uint64_t contentClass(const std::string& content) {
    constexpr std::size_t kZeroes = 16; // a pattern has fewer
    const auto tail = content.substr(content.size() - std::min(content.size(), kZeroes));
    return sizeClass(content.size()) * 2 + (tail == std::string(kZeroes, '\0'));
}

std::uint64_t nameClass(const std::string& name) {
    const bool isPlain = std::ranges::all_of(name, [](char c) { return c > 0 && c != ':'; });
    return (name.size() > 100 ? 4u : 0u) + (isPlain ? 0 : 2) + (name.back() == '.');
}

std::string lowered(std::string path) {
    std::ranges::transform(path, path.begin(), [](unsigned char c) { return std::tolower(c); });
    return path;
}

bool isOneOf(Verb verb, std::initializer_list<Verb> verbs) {
    return std::ranges::find(verbs, verb) != verbs.end();
}

bool isChange(Verb verb) {
    return !isOneOf(verb, {Verb::lookup, Verb::readlink, Verb::read, Verb::getStream, Verb::sync,
                           Verb::trim, Verb::reload, Verb::cut});
}

bool isSmall(const Operation& op) {
    return !isOneOf(op.verb,
                    {Verb::write, Verb::truncate, Verb::allocate, Verb::create, Verb::setStream}) ||
           op.number + op.other <= kBytesMax;
}

// A volume and where the model says that it is.
class Pair {
  public:
    Pair(Bytes image, Place place, const MakeSystem& make) : make_(make), place_(std::move(place)) {
        open(std::move(image));
    }

    const Place& place() const { return place_; }
    // As of the last cut.
    const Bytes& image() const { return image_; }

    // What is wrong then; empty when nothing is.
    std::string apply(const Operation& op, bool compareAll) {
        try {
            const Answer expected = place_.apply(op);
            if (op.verb == Verb::cut) {
                return cut();
            }
            if (std::string fault = difference(system_->apply(op), expected); !fault.empty()) {
                return fault;
            }
            return compare(*system_, place_.model,
                           compareAll || op.verb == Verb::reload ? place_.model.tree().items
                                                                 : touched(place_.model, op));
        } catch (const std::exception& error) {
            return std::string(error.what()) + "\n";
        }
    }

  private:
    void open(Bytes image) {
        image_ = std::move(image);
        disk_ = std::make_shared<HostDisk>(image_);
        system_ = make_([disk = disk_] {
            auto host = std::make_unique<ModuleHost>(disk);
            host->open();
            return host;
        });
    }

    std::string cut() {
        system_->volume().synchronize().get();
        open(Bytes(disk_->bytes)); // before the old volume's end writes any more
        const std::string complaints = structuralComplaints(image_);
        return complaints.empty() ? compare(*system_, place_.model, place_.model.tree().items)
                                  : complaints;
    }

    const MakeSystem& make_;
    Place place_;
    Bytes image_;
    std::shared_ptr<HostDisk> disk_;
    std::unique_ptr<System> system_;
};

} // namespace

// ---- Places -------------------------------------------------------------------------------------

Answer Place::apply(const Operation& op) {
    Answer answer = model.apply(op);
    if (isChange(op.verb)) {
        unsynchronised = unsynchronised || answer.error == 0;
    } else if (op.verb == Verb::sync) {
        journaled = journaled || unsynchronised;
        unsynchronised = false;
    } else if (isOneOf(op.verb, {Verb::trim, Verb::reload, Verb::cut})) {
        unsynchronised = journaled = false;
    }
    return answer;
}

std::uint64_t Place::state() const {
    std::map<std::string, int> sameButForCase;
    std::map<std::size_t, std::uint64_t> together; // the names of one item, by how deep they are
    for (const auto& [path, item] : model.names()) {
        ++sameButForCase[lowered(path)];
        together[item] += mixed(1 + static_cast<std::uint64_t>(std::ranges::count(path, '/')));
    }
    // What is below a directory comes after it. Sums, since the order of names does not count.
    std::map<std::string, std::uint64_t> below;
    for (auto at = model.names().rbegin(); at != model.names().rend(); ++at) {
        const std::string& path = at->first;
        const Model::Node& node = model.at(path);
        std::uint64_t streams = 0;
        for (const auto& [name, content] : node.streams) {
            streams += hashOf({nameClass(name), contentClass(content)});
        }
        const std::uint64_t item =
            hashOf({static_cast<std::uint64_t>(node.kind), node.hidden, contentClass(node.content),
                    streams, together[at->second], below[path]});
        if (path == "/") {
            return hashOf({item, unsynchronised, journaled});
        }
        below[directoryOf(path)] +=
            hashOf({item, nameClass(nameOf(path)), sameButForCase[lowered(path)] > 1});
    }
    throw std::logic_error("a model has a root");
}

std::unique_ptr<System> plainSystem(System::Open open) {
    return std::make_unique<System>(std::move(open));
}

std::string play(const Operations& script, const Bytes& formatted, const MakeSystem& make) {
    Pair pair(formatted, {}, make);
    Operations whole = script;
    whole.push_back({.verb = Verb::cut});
    for (std::size_t i = 0; i < whole.size(); ++i) {
        const std::string fault = pair.apply(whole[i], true);
        if (!fault.empty()) {
            return "step " + std::to_string(i + 1) + ": " + toText({whole[i]}) + fault;
        }
    }
    return "";
}

// ---- Walks --------------------------------------------------------------------------------------

Explorer::Explorer(Part part, Bytes formatted, MakeSystem make)
    : part_(part), formatted_(std::move(formatted)), make_(std::move(make)) {
    starts_.push_back({.script = {}, .image = formatted_});
}

std::uint64_t Explorer::Start::cost() const {
    return script.size() + kStepsMax * walks;
}

Explorer::Start& Explorer::next() {
    Start& start = *std::ranges::min_element(starts_, {}, &Start::cost);
    ++start.walks;
    return start;
}

bool Explorer::isNew(std::uint64_t state) const {
    return isMine(state) && !states_.contains(state);
}

Operation Explorer::choose(const Place& place, OperationSource& source,
                           std::mt19937_64& random) const {
    const Tree tree = place.model.tree();
    const bool anywhere = random() % 4 == 0;
    Operation fallback{.verb = Verb::sync};
    for (int i = 0; i < kCandidates; ++i) {
        const Operation op = source.next(tree);
        if (!isSmall(op)) {
            continue;
        }
        Place then = place;
        then.apply(op);
        if (then.model.names().size() > kItemsMax) {
            continue;
        }
        if (anywhere || isNew(then.state())) {
            return op;
        }
        fallback = op;
    }
    return fallback;
}

std::string Explorer::walk(std::ostream& trace) {
    Start& start = next();
    script_ = start.script;
    trace << toText(script_) << std::flush;
    const std::uint64_t seed = hashOf({part_.seed, part_.worker, ++figures_.walks});
    std::mt19937_64 random(seed);
    OperationSource source(mixed(seed));
    if (start.image.empty()) {
        Pair pair(formatted_, {}, make_);
        for (const Operation& op : script_) {
            if (std::string fault = pair.apply(op, false); !fault.empty()) {
                return fault;
            }
        }
        start.image = pair.image();
        start.place = pair.place();
    }
    Pair pair(start.image, start.place, make_);
    int stale = 0;
    bool isLast = false;
    for (std::size_t steps = 1; !isLast; ++steps) {
        isLast = steps >= kStepsMax || stale > kStaleStepsMax;
        const bool all = steps % kStepsBetweenComparisons == 0 || isLast;
        script_.push_back(isLast ? Operation{.verb = Verb::cut}
                                 : choose(pair.place(), source, random));
        trace << toText({script_.back()}) << std::flush;
        if (std::string fault = pair.apply(script_.back(), all); !fault.empty()) {
            return fault;
        }
        const std::uint64_t state = pair.place().state();
        stale = isNew(state) ? 0 : stale + 1;
        if (isMine(state)) {
            states_.insert(state);
        }
        ++figures_.operations;
        figures_.comparisons += all;
        figures_.cuts += isLast;
    }
    if (script_.size() <= kScriptMax) {
        if (starts_.size() >= kStartsMax) {
            starts_.erase(std::ranges::max_element(starts_, {}, &Start::cost));
        }
        starts_.push_back({.script = script_, .image = pair.image(), .place = pair.place()});
    }
    return "";
}

// ---- Between runs -------------------------------------------------------------------------------

void Explorer::save(std::ostream& out) const {
    out << "explored " << part_.seed << ' ' << part_.worker << ' ' << part_.workers << ' '
        << figures_.walks << ' ' << figures_.operations << ' ' << figures_.comparisons << ' '
        << figures_.cuts << ' ' << starts_.size() << ' ' << states_.size() << '\n';
    for (const Start& start : starts_) {
        out << start.walks << ' ' << start.script.size() << '\n' << toText(start.script);
    }
    out << std::hex;
    for (const std::uint64_t state : states_) {
        out << state << '\n';
    }
    out << std::dec;
}

void Explorer::load(std::istream& in) {
    std::string word;
    Part part;
    std::size_t startCount = 0;
    std::size_t stateCount = 0;
    in >> word >> part.seed >> part.worker >> part.workers >> figures_.walks >>
        figures_.operations >> figures_.comparisons >> figures_.cuts >> startCount >> stateCount;
    if (!in || word != "explored" || part.seed != part_.seed || part.worker != part_.worker ||
        part.workers != part_.workers) {
        throw std::runtime_error("not the file of this exploration");
    }
    starts_.clear();
    for (std::size_t i = 0; i < startCount; ++i) {
        Start& start = starts_.emplace_back();
        std::size_t lines = 0;
        in >> start.walks >> lines >> std::ws;
        std::string text;
        for (std::string line; lines > 0 && std::getline(in, line); --lines) {
            text += line + '\n';
        }
        start.script = fromText(text);
    }
    in >> std::hex;
    for (std::uint64_t state = 0; stateCount > 0 && in >> state; --stateCount) {
        states_.insert(state);
    }
    if (!in) {
        throw std::runtime_error("the file of this exploration is cut short");
    }
}

} // namespace tavelin::test

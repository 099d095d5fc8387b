#include "fskit/kept_listings.hpp"

#include "platform/assert.hpp"
#include "platform/checked.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tavelin {

std::uint64_t KeptListings::nextVerifier() {
    checkedIncrement(lastVerifier_, "the number of listings overflowed");
    return lastVerifier_;
}

KeptListings::Snapshot KeptListings::find(std::uint64_t directory, std::uint64_t verifier) {
    const auto found = std::find_if(listings_.begin(), listings_.end(), [&](const Listing& each) {
        return each.snapshot->verifier == verifier;
    });
    // A verifier of another directory is a host's mistake. Its positions mean nothing here.
    if (found == listings_.end() || found->directory != directory) {
        return nullptr;
    }
    listings_.splice(listings_.end(), listings_, found);
    return listings_.back().snapshot;
}

KeptListings::Listings KeptListings::keep(std::uint64_t directory, Snapshot snapshot) {
    if (find(directory, snapshot->verifier) != nullptr) {
        return {};
    }
    listings_.push_back({directory, std::move(snapshot)});
    bytes_ += listings_.back().snapshot->entries.memoryBytes();
    Listings dropped;
    while (listings_.size() > 1 && (listings_.size() > kListingsMax || bytes_ > kBytesMax)) {
        bytes_ -= listings_.front().snapshot->entries.memoryBytes();
        dropped.splice(dropped.end(), listings_, listings_.begin());
    }
    return dropped;
}

template<typename Wanted>
KeptListings::Listings KeptListings::takeOutWhere(const Wanted& wanted) {
    Listings taken;
    for (auto each = listings_.begin(); each != listings_.end();) {
        const auto next = std::next(each);
        if (wanted(*each)) {
            TAVELIN_ASSERT(bytes_ >= each->snapshot->entries.memoryBytes());
            bytes_ -= each->snapshot->entries.memoryBytes();
            taken.splice(taken.end(), listings_, each);
        }
        each = next;
    }
    TAVELIN_ASSERT(!listings_.empty() || bytes_ == 0);
    return taken;
}

KeptListings::Listings KeptListings::takeOut(std::uint64_t directory, std::uint64_t verifier) {
    return takeOutWhere([&](const Listing& each) {
        return each.directory == directory && each.snapshot->verifier == verifier;
    });
}

KeptListings::Listings KeptListings::takeOut(std::uint64_t directory) {
    return takeOutWhere([&](const Listing& each) { return each.directory == directory; });
}

KeptListings::Listings KeptListings::takeOut() {
    return takeOutWhere([](const Listing&) { return true; });
}

} // namespace tavelin

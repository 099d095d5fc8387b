#include "lab/cut.hpp"

#include <algorithm>

namespace tavelin::test {

namespace {

void putOnMedium(Bytes& image, const DiskEvent& event) {
    std::copy(event.content.begin(), event.content.end(),
              image.begin() + static_cast<std::ptrdiff_t>(event.offset));
}

void putSomeSectors(Bytes& image, const DiskEvent& event, std::size_t sector,
                    std::mt19937_64& random) {
    for (std::size_t at = 0; at < event.content.size(); at += sector) {
        if (random() % 2 == 0) {
            std::copy_n(event.content.begin() + static_cast<std::ptrdiff_t>(at),
                        std::min(sector, event.content.size() - at),
                        image.begin() + static_cast<std::ptrdiff_t>(event.offset + at));
        }
    }
}

} // namespace

Bytes afterCut(const Bytes& base, const std::vector<DiskEvent>& events, std::size_t end, Cut cut,
               std::mt19937_64& random) {
    Bytes image = base;
    std::size_t certain = end; // events that happened whole and in order
    const bool isTorn = cut == Cut::torn || cut == Cut::tornPages;
    if (isTorn && end > 0) {
        certain = end - 1;
    } else if (cut == Cut::reordered || cut == Cut::dropped) {
        while (certain > 0 && !events[certain - 1].flush) {
            certain--;
        }
    }
    for (std::size_t i = 0; i < certain; i++) {
        putOnMedium(image, events[i]);
    }
    if (isTorn) {
        for (std::size_t i = certain; i < end; i++) {
            putSomeSectors(image, events[i], cut == Cut::torn ? 512 : 4096, random);
        }
        return image;
    }
    std::vector<std::size_t> uncertain;
    for (std::size_t i = certain; i < end && cut == Cut::reordered; i++) {
        if (random() % 2 == 0) {
            uncertain.push_back(i);
        }
    }
    std::shuffle(uncertain.begin(), uncertain.end(), random);
    for (const std::size_t i : uncertain) {
        putOnMedium(image, events[i]);
    }
    return image;
}

} // namespace tavelin::test

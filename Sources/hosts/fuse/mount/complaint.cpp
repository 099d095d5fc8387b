#include "hosts/fuse/mount/complaint.hpp"

#include "platform/harmless_text.hpp"

#include <cstdio>

namespace tavelin::fusehost {

void complain(std::string_view what) {
    std::fprintf(stderr, "tavelin: %s\n", escaped(what).c_str());
}

} // namespace tavelin::fusehost

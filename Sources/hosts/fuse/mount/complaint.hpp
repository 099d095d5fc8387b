/// What a mount and its commands tell who started them.
#pragma once

#include <string_view>

namespace tavelin::fusehost {

/// Writes "tavelin: WHAT" and the end of the line to standard error. Paths and names in it may hold
/// anything: what could drive a terminal is shown escaped. Whoever was to read it may be gone, so
/// that it fails silently. Any thread.
void complain(std::string_view what);

} // namespace tavelin::fusehost

// libFuzzer's entry for the structural check: script/fuzz --check builds and runs it.
#include "check/hostile_volume.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static_cast<void>(tavelin::test::checkHostile({data, size}));
    return 0;
}

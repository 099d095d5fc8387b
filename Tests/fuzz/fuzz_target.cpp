// libFuzzer's entry: script/fuzz builds and runs it.
#include "fuzz/hostile_image.hpp"
#include "support/replaced_services.hpp"

// The volumes are not the first input's.
extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*words*/) {
    (void)tavelin::test::seedVolumes();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavelin::test;
    static const ReplacedServices services; // no flush but those that are asked for
    InputReader input({data, size});
    MappedImage volume = damagedVolume(input);
    sendRequests(std::move(volume), input);
    return 0;
}

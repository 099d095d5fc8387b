// Damaged volumes, and what is asked of them: both read from a fuzzer's bytes.
//
// An input is a list of bytes, absent ones being 0:
//   seed                         which sound volume to begin with
//   count, then count times      changes of its structures, six bytes each:
//     kind                       file record, index block, boot sector, anywhere, or the header of
//                                a journal's record
//     number                     which record or block, or the upper bits of the place
//     place, 2 bytes             in it, little endian
//     how                        what becomes of the bytes there
//     value
//   the rest                     requests, two bytes each: which, and on what
// File records and index blocks are changed as the library sees them, without their update
// sequences, which are put back afterwards; the first records are changed in $MFTMirr too. A
// journal's record gets the checksum that its new header asks for.
#pragma once

#include "lab/mapped_image.hpp"

#include <array>
#include <cstdint>
#include <span>

namespace tavelin::test {

// Formats the seed volumes, once a process; until then the first input does.
const std::array<SharedImage, 4>& seedVolumes();

// Reads an input from its front.
class InputReader {
  public:
    explicit InputReader(std::span<const std::uint8_t> input) : rest_(input) {}

    bool isAtEnd() const { return rest_.empty(); }
    std::uint8_t byte();

  private:
    std::span<const std::uint8_t> rest_;
};

// The damaged volume that the input's first part describes.
MappedImage damagedVolume(InputReader& input);

// Opens the volume, sends what the rest of the input asks for, and closes it. Requests may fail as
// they like.
void sendRequests(MappedImage volume, InputReader& input);

} // namespace tavelin::test

// What the structural check says of an image that nobody has mounted.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tavelin::test {

// As the next mount will make it, if a journal waits to be replayed. Empty when nothing is wrong;
// otherwise a line for each finding, or why the volume could not be read. Changes nothing.
std::string structuralComplaints(const std::filesystem::path& image);
std::string structuralComplaints(std::vector<std::uint8_t> image);

} // namespace tavelin::test

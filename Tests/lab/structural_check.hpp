// What the structural check says of an image that nobody has mounted.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>

namespace tavelin::test {

// As the next mount will make it, if a journal waits to be replayed. Empty when nothing is wrong;
// otherwise a line for each finding, or why the volume could not be read. Changes nothing.
std::string structuralComplaints(const std::filesystem::path& image);
std::string structuralComplaints(std::span<const std::byte> image);

} // namespace tavelin::test

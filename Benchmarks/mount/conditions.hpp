// What a run of the benchmark was made on and with, and what it holds the same for all servers.
#pragma once

#include "platform/file_descriptor.hpp"

#include <string>

namespace tavelin::bench {

// Date, machine, kernel and versions, as Markdown: figures mean nothing without them.
std::string describeConditions(const std::string& tavelin);

// Keeps all processors out of deep idle states as long as it lives (PM QoS), for whatever server
// is measured meanwhile. Throws std::system_error where the kernel does not let us.
class ProcessorsAwake {
  public:
    ProcessorsAwake();

  private:
    FileDescriptor request_;
};

} // namespace tavelin::bench

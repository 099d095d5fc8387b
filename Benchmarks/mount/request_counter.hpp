// Counts the requests that the kernel sends to FUSE servers, whoever they are.
#pragma once

#include "platform/file_descriptor.hpp"

#include <cstdint>
#include <vector>

namespace tavelin::bench {

// Counts by the kernel's tracepoint fuse:fuse_request_send (Linux 6.11 and later; root only), on
// all processors. It costs every server the same few nanoseconds a request.
class RequestCounter {
  public:
    RequestCounter();
    // False where the kernel has no such tracepoint or does not let us use it.
    bool isAvailable() const { return !counters_.empty(); }
    // Requests of the whole system since construction; 0 where none can be counted.
    uint64_t count() const;

  private:
    std::vector<FileDescriptor> counters_; // one a processor
};

} // namespace tavelin::bench

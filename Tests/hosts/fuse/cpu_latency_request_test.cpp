// What is asked of the kernel's processors while requests come, and when they stop.
#include "hosts/fuse/protocol/cpu_latency_request.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

using fusehost::CpuLatencyRequest;

// A pipe in place of the kernel's file; reading waits for the next number.
class KernelFile {
  public:
    KernelFile() {
        EXPECT_EQ(::mkfifo(path().c_str(), 0600), 0);
        reader_ = ::open(path().c_str(), O_RDWR | O_CLOEXEC);
    }
    ~KernelFile() { ::close(reader_); }

    std::filesystem::path path() const { return directory_.path() / "latency"; }
    int32_t next() {
        int32_t microseconds = -1;
        EXPECT_EQ(::read(reader_, &microseconds, sizeof microseconds),
                  static_cast<ssize_t>(sizeof microseconds));
        return microseconds;
    }

  private:
    TempDirectory directory_;
    int reader_ = -1;
};

TEST(CpuLatencyRequest, LastsAsLongAsRequestsCome) {
    KernelFile file;
    CpuLatencyRequest request(true, file.path());
    request.start();
    for (int times = 0; times < 3; ++times) {
        EXPECT_LE(file.next(), 2) << "busy: no deep sleep";
        EXPECT_GT(file.next(), 1'000'000) << "nothing came: as deep as it likes";
        request.noteRequest();
    }
    EXPECT_LE(file.next(), 2);
}

TEST(CpuLatencyRequest, IsDoneWithoutWhereItIsNotWantedOrCannotBe) {
    KernelFile file;
    {
        CpuLatencyRequest unwanted(false, file.path());
        CpuLatencyRequest impossible(true, "/nonexistent/latency");
        unwanted.start();
        impossible.start();
        unwanted.noteRequest();
        impossible.noteRequest();
    }
    CpuLatencyRequest request(true, file.path());
    request.start();
    EXPECT_LE(file.next(), 2) << "the first number there is";
}

} // namespace
} // namespace tavelin::test

// A module over a resource in memory, with its log lines and events to look at.
#pragma once

#include "requests.hpp"

#include "diagnostics/error_tally.hpp"
#include "diagnostics/event_log.hpp"
#include "diagnostics/op_counter.hpp"
#include "fskit/tavelin_file_system.hpp"
#include "lab/disk_resource.hpp"
#include "lab/structural_check.hpp"
#include "platform/error_numbers.hpp"
#include "support/own_group.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

namespace tavelin::test {

using MemoryResource = DiskResourceOf<fskit::FSBlockDeviceResource, std::string>;

class ModuleTest : public ::testing::Test {
  protected:
    using Type = fskit::FSItemType;
    using Item = fskit::FSItemRef;
    using Options = std::vector<std::string>;

    ModuleTest() {
        static_cast<void>(takeEvents());
        static_cast<void>(OpCounter::shared().dumpAndReset());
        errorTally().reset();
    }

    fskit::FSProbeResult probe() { return module.probeResource(disk); }
    std::int64_t load(const Options& options = {}) {
        return codeOf(module.loadResource(disk, {options}));
    }
    std::int64_t unload() { return codeOf(module.unloadResource(disk, {})); }
    // Loads and activates; the volume then answers requests, and `root` is its root.
    void start(const Options& options = {}) {
        ASSERT_EQ(load(options), 0);
        root = *requests().activate();
    }
    TavelinVolume& volume() { return *module.volume; }
    Requests requests() { return Requests(volume()); }

    // The events since the last call, one JSON line each, without time and process and with every
    // elapsed time 0.
    std::vector<std::string> takeEvents() {
        const EventLog::Chunk fresh = events().read(eventsRead_);
        eventsRead_ = fresh.offset;
        std::vector<std::string> lines;
        std::istringstream text(fresh.text);
        for (std::string line; std::getline(text, line);) {
            line = std::regex_replace(line, std::regex(R"re(,?"(t|pid)":("[^"]*"|\d+))re"), "");
            line = std::regex_replace(line, std::regex(R"re("ms":\d+)re"), "\"ms\":0");
            lines.push_back(line);
        }
        return lines;
    }
    // The last of the events since the last call.
    std::string takeLastEvent() {
        const auto lines = takeEvents();
        return lines.empty() ? "" : lines.back();
    }
    // Tries all that changes the volume, in whose root is `file`.
    void expectReadOnly(const Item& file) {
        auto ask = requests();
        fskit::FSItemSetAttributesRequest shorter;
        shorter.setSize(0);
        fskit::FSItemSetAttributesRequest earlier;
        earlier.setModifyTime({.tv_sec = 1, .tv_nsec = 0});
        fskit::FSItemSetAttributesRequest hidden;
        hidden.setFlags(0x8000);
        for (const std::int64_t code :
             {ask.setAttributes(file, shorter).code(), ask.setAttributes(file, earlier).code(),
              ask.setAttributes(file, hidden).code(), ask.write(file, 0, "x").code(),
              ask.create(root, "new").code(), ask.symlink(root, "new", "file").code(),
              ask.rename(file, root, "file", root, "new").code(), ask.remove(file, root, "file"),
              ask.setXattr(file, "note", "x"), ask.setName("Other"),
              codeOf(volume().linkInternal(file, fskit::FSFileName("new"), root))}) {
            EXPECT_EQ(code, kEROFS);
        }
        EXPECT_EQ(*ask.read(file, 0, 100), "content");
    }

    std::vector<std::string> takeLog() { return services.log().takeLines(); }
    static std::string takeCounts() { return OpCounter::shared().dumpAndReset(); }

    ReplacedServices services;
    std::shared_ptr<MemoryResource> disk;
    TavelinFileSystem module;
    Item root;

  private:
    static inline std::uint64_t eventsRead_ = 0;
};

// The same over a fresh volume.
class VolumeTest : public ModuleTest {
  protected:
    explicit VolumeTest(const VolumeGeometry& geometry = {}) : sample(geometry) {
        disk = std::make_shared<MemoryResource>(readFile(sample.image()));
    }

    // What the module has left, perhaps with requests that were not flushed yet, has to be sound.
    ~VolumeTest() override {
        if (sample.isChecked() && disk && !HasFailure()) {
            EXPECT_EQ(structuralComplaints(bytesOf(disk->bytes)), "");
        }
    }

    // The volume as other programs have it.
    void reread() { disk->bytes = readFile(sample.image()); }
    // Puts what the resource holds back into the image file, for other programs to look at.
    void save() { writeFile(sample.image(), disk->bytes); }

    const SampleVolume sample;
};

} // namespace tavelin::test

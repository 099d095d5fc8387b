// The real thing, with the same interface as the model: a volume driven through the module host.
#pragma once

#include "hosting/module_host.hpp"
#include "lab/model.hpp"

namespace tavelin::test {

// Carries one operation out, any but reload. Throws fskit::Error.
Answer carryOut(VolumeClient& volume, const Operation& op);

// What is to be seen of an item. Throws fskit::Error when it cannot be.
ItemState observe(VolumeClient& volume, const std::string& path);

// Requests may come from several threads, except reload.
class System {
  public:
    explicit System(std::filesystem::path image, ModuleHost::Options options = {});

    Answer apply(const Operation& op);
    ItemState observe(const std::string& path) { return test::observe(volume(), path); }
    // Closes the volume and opens it again. Throws fskit::Error or OpenError.
    void reload();

    VolumeClient& volume() { return host_->volume(); }

  private:
    const std::filesystem::path image_;
    const ModuleHost::Options options_;
    std::unique_ptr<ModuleHost> host_;
};

} // namespace tavelin::test

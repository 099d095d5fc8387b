// The real thing, with the same interface as the model: a volume driven through the module host.
#pragma once

#include "hosting/module_host.hpp"
#include "lab/model.hpp"

#include <functional>
#include <memory>

namespace tavelin::test {

// Carries one operation out, any but those that open the volume again. Throws fskit::Error.
Answer carryOut(VolumeClient& volume, const Operation& op);

// What is to be seen of an item. Throws fskit::Error when it cannot be.
ItemState observe(VolumeClient& volume, const std::string& path);

// Requests may come from several threads, except reload.
class System {
  public:
    // Opens the volume for each of its lives.
    using Open = std::function<std::unique_ptr<ModuleHost>()>;

    explicit System(const std::filesystem::path& image, const ModuleHost::Options& options = {});
    explicit System(Open open) : open_(std::move(open)), host_(open_()) {}
    virtual ~System() = default;
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    // Any but cut.
    virtual Answer apply(const Operation& op);
    ItemState observe(const std::string& path) { return test::observe(volume(), path); }
    // Closes the volume and opens it again. Throws fskit::Error or OpenError.
    void reload();

    VolumeClient& volume() { return host_->volume(); }

  private:
    const Open open_;
    std::unique_ptr<ModuleHost> host_;
};

} // namespace tavelin::test

// One way to work on a volume, so that the same work can be timed on two.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavelin::bench {

// A mounted volume. Every member throws std::runtime_error with what failed. Directory and file
// are the engine's own handles, valid until it is destroyed.
class Engine {
  public:
    virtual ~Engine() = default;

    virtual void makeDirectory(const std::string& name) = 0;
    // The following work in the directory made or found last.
    virtual void openDirectory(const std::string& name) = 0;
    virtual void createAndWrite(const std::string& name, const std::string& content) = 0;
    virtual void openAndWrite(const std::string& name, const std::string& content) = 0;
    virtual uint64_t lookUpSize(const std::string& name) = 0;
    virtual uint64_t countEntries() = 0;

    // A large file, kept open where the engine can.
    virtual void openFile(const std::string& name, bool create) = 0;
    virtual void write(uint64_t offset, const std::vector<char>& data) = 0;
    virtual void read(uint64_t offset, std::vector<char>& data) = 0;
    virtual void closeFile() = 0;

    // Everything written is on the device.
    virtual void sync() = 0;
};

// The bridge over a FileBlockDevice.
std::unique_ptr<Engine> mountBridge(const std::string& image);

// libntfs-3g over its own file device, used as directly as it can be: what need not be opened
// again stays open.
std::unique_ptr<Engine> mountLibrary(const std::string& image);

} // namespace tavelin::bench

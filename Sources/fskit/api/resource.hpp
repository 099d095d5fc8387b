/// What a file system is loaded from, and what probing and loading it answer.
#pragma once

#include "fskit/api/entity_identifier.hpp"
#include "fskit/api/error.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace fskit {

/// Made by the host, shared with the module while a request or a loaded volume uses it.
class FSResource {
  public:
    virtual ~FSResource() = default;
    /// The medium is gone: I/O fails from now on.
    virtual bool isRevoked() const { return false; }
};

/// A disk or partition. Offsets and lengths are bytes and must be whole blocks. The calls may be
/// made from any thread; they throw Error when the device failed.
class FSBlockDeviceResource : public FSResource {
  public:
    /// For people: logs and messages name the device by it.
    virtual std::string BSDName() const = 0; ///< as "disk4s1"
    /// Whether the medium takes writes at all. The same for the resource's whole life.
    virtual bool isWritable() const = 0;
    virtual std::uint64_t blockSize() const = 0; ///< bytes
    /// Blocks of blockSize() bytes.
    virtual std::uint64_t blockCount() const = 0;
    virtual std::uint64_t physicalBlockSize() const = 0; ///< bytes

    /// Direct I/O: may complete short, without an error. Answers the count transferred.
    virtual std::size_t read(std::byte* buffer, std::uint64_t offset, std::size_t length) = 0;
    /// The same for writing; what was not transferred is the caller's to repeat.
    virtual std::size_t write(const std::byte* buffer, std::uint64_t offset,
                              std::size_t length) = 0;

    /// I/O through the kernel's buffer cache: never partial. A delayed write reaches the device
    /// with the next flush.
    /// Fills all of `buffer` or throws.
    virtual void metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) = 0;
    virtual void delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                                      std::size_t length) = 0;
    /// Returns once all delayed writes have left the buffer cache.
    virtual void metadataFlush() = 0;
};

/// How well a module knows a resource, from not at all to usable.
enum class FSMatchResult : std::int64_t {
    notRecognized = 0,
    recognized = 1,
    usableButLimited = 2,
    usable = 3,
};

/// What a probe answers. Name and identifier are there for usable resources.
struct FSProbeResult {
    FSMatchResult result = FSMatchResult::notRecognized;
    std::optional<std::string> name;
    /// By which the host knows the volume again.
    std::optional<FSContainerIdentifier> containerID;

    static FSProbeResult notRecognized() { return {}; }
    /// A volume of this module, under the name that people know it by.
    static FSProbeResult usable(std::string name, FSContainerIdentifier containerID) {
        return {FSMatchResult::usable, std::move(name), containerID};
    }
};

/// Where the module is with its container. Load leaves it ready.
enum class FSContainerState : std::int64_t { notReady = 0, blocked = 1, ready = 2, active = 3 };

/// `status` says why a container is not ready; absent otherwise.
struct FSContainerStatus {
    FSContainerState state = FSContainerState::notReady;
    std::optional<Error> status;

    static FSContainerStatus ready() { return {FSContainerState::ready, std::nullopt}; }
    static FSContainerStatus active() { return {FSContainerState::active, std::nullopt}; }
    /// Why nothing can be loaded.
    static FSContainerStatus notReady(Error status) {
        return {FSContainerState::notReady, std::move(status)};
    }
};

} // namespace fskit

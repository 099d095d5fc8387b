/// A file-system module: what a host asks of it before and after there is a volume.
#pragma once

#include "fskit/api/resource.hpp"
#include "fskit/api/task.hpp"
#include "fskit/api/volume.hpp"

#include <functional>
#include <memory>
#include <optional>

namespace fskit {

using FSResourceRef = std::shared_ptr<FSResource>;

using ProbeReply = std::function<void(FSProbeResult, const MaybeError&)>;
using VolumeReply = std::function<void(std::shared_ptr<FSVolume>, const MaybeError&)>;

/// One per module process. Probe, load and unload answer their reply exactly once.
class FSUnaryFileSystem {
  public:
    FSUnaryFileSystem() = default;
    virtual ~FSUnaryFileSystem() = default;
    FSUnaryFileSystem(const FSUnaryFileSystem&) = delete;
    FSUnaryFileSystem& operator=(const FSUnaryFileSystem&) = delete;

    /// Read by the host after each request; load leaves it ready. A module sets it on the thread
    /// of a request, and the host does not overlap load and unload.
    FSContainerStatus containerStatus;

    virtual void probeResource(const FSResourceRef& resource, const ProbeReply& reply) = 0;
    virtual void loadResource(const FSResourceRef& resource, const FSTaskOptions& options,
                              const VolumeReply& reply) = 0;
    virtual void unloadResource(const FSResourceRef& resource, const FSTaskOptions& options,
                                const ErrorReply& reply) = 0;

    /// Both answer at once with the progress of work that goes on elsewhere and ends with the
    /// task's didComplete, or throw Error when it cannot begin; a task is then never completed.
    virtual std::shared_ptr<NSProgress> startCheck(const std::shared_ptr<FSTask>& task,
                                                   const FSTaskOptions& options) = 0;
    virtual std::shared_ptr<NSProgress> startFormat(const std::shared_ptr<FSTask>& task,
                                                    const FSTaskOptions& options) = 0;
};

} // namespace fskit

/// A file-system module: what a host asks of it before and after there is a volume.
#pragma once

#include "fskit/api/outcome.hpp"
#include "fskit/api/resource.hpp"
#include "fskit/api/task.hpp"
#include "fskit/api/volume.hpp"

#include <memory>

namespace fskit {

using FSResourceRef = std::shared_ptr<FSResource>;

/// One per module process.
class FSUnaryFileSystem {
  public:
    FSUnaryFileSystem() = default;
    virtual ~FSUnaryFileSystem() = default;
    FSUnaryFileSystem(const FSUnaryFileSystem&) = delete;
    FSUnaryFileSystem& operator=(const FSUnaryFileSystem&) = delete;

    /// Read by the host after each request; load leaves it ready. A module sets it on the thread
    /// of a request, and the host does not overlap load and unload.
    FSContainerStatus containerStatus;

    /// Whether the resource has a file system of this module on it. Reads only and never fails:
    /// what cannot be read is not recognised.
    virtual FSProbeResult probeResource(const FSResourceRef& resource) = 0;
    /// Opens the resource and makes its volume. The host activates it next, or unloads.
    virtual Outcome<std::shared_ptr<FSVolume>> loadResource(const FSResourceRef& resource,
                                                            const FSTaskOptions& options) = 0;
    /// Ends the use of the resource. The module forgets the volume even when this fails.
    virtual Outcome<void> unloadResource(const FSResourceRef& resource,
                                         const FSTaskOptions& options) = 0;

    /// Both answer at once with the progress of work that goes on elsewhere and ends with the
    /// task's didComplete, or with why it cannot begin; the task is then never completed.
    virtual Outcome<std::shared_ptr<NSProgress>> startCheck(const std::shared_ptr<FSTask>& task,
                                                            const FSTaskOptions& options) = 0;
    virtual Outcome<std::shared_ptr<NSProgress>> startFormat(const std::shared_ptr<FSTask>& task,
                                                             const FSTaskOptions& options) = 0;
};

} // namespace fskit

#include "hosting/module_host.hpp"

#include "core/driver2/mount_options.hpp"
#include "fskit/tavelin_file_system.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"
#include "platform/mutex.hpp"

namespace tavelin {

namespace {

/// A task whose end one thread waits for.
class AwaitedTask final : public fskit::FSTask {
  public:
    // The front end's tasks have nothing to say that their end does not.
    void logMessage(const std::string& /*text*/) override {}

    void didComplete(const std::optional<fskit::Error>& error) override {
        const MutexLock held(lock_);
        if (completed_) {
            fatal("a task was completed twice");
        }
        completed_ = true;
        error_ = error;
        changed_.notifyAll();
    }

    std::optional<fskit::Error> wait() {
        const MutexLock held(lock_);
        while (!completed_) {
            changed_.wait(lock_);
        }
        return error_;
    }

  private:
    Mutex lock_;
    ConditionVariable changed_;
    bool completed_ TAVELIN_GUARDED_BY(lock_) = false;
    std::optional<fskit::Error> error_ TAVELIN_GUARDED_BY(lock_);
};

/// Why a load was refused, in the user's words.
std::string refusal(const fskit::Error& error) {
    switch (error.isPOSIX() ? error.code() : 0) {
    case kEPERM:
        return "Windows is hibernated on it, or was shut down with fast start-up";
    case kEINVAL:
        return "its NTFS structures are not valid";
    case kEIO:
        return "it cannot be read, or its NTFS structures are damaged";
    default:
        return error.localizedDescription();
    }
}

/// Whether a device's first block can be read: tells a failing device from a foreign one.
std::optional<fskit::Error> firstBlockError(HostResource& resource) {
    std::vector<std::byte> block(resource.physicalBlockSize());
    try {
        (void)resource.read(block.data(), 0, block.size());
        return std::nullopt;
    } catch (const fskit::Error& error) {
        return error;
    }
}

} // namespace

ModuleHost::ModuleHost(std::shared_ptr<HostResource> resource)
    : resource_(std::move(resource)), module_(std::make_unique<TavelinFileSystem>()) {}

ModuleHost::~ModuleHost() {
    (void)close();
}

// ---- All steps ---------------------------------------------------------------------------------

void ModuleHost::open(const Options& options) {
    using Reason = OpenError::Reason;
    const std::string image = resource_->BSDName();
    const auto fail = [&](Reason reason, const fskit::Error& error, const std::string& why) {
        (void)close(); // what failed first is what the user must hear
        throw OpenError(reason, error.isPOSIX() ? static_cast<std::int32_t>(error.code()) : kEIO,
                        image, why);
    };
    if (probe().result != fskit::FSMatchResult::usable) {
        // A probe has no error of its own for a device that cannot be read: it answers that nothing
        // was recognised.
        if (const auto error = firstBlockError(*resource_)) {
            fail(Reason::ioError, *error, error->localizedDescription());
        }
        throw OpenError(Reason::notNTFS, kEINVAL, image, "not an NTFS volume");
    }
    if (const auto loaded = load(options); !loaded) {
        fail(Reason::refused, loaded.error(), refusal(loaded.error()));
    }
    if (const auto activated = activate(options); !activated) {
        fail(Reason::refused, activated.error(), refusal(activated.error()));
    }
    if (const auto mounted = mount({}); !mounted) {
        fail(Reason::refused, mounted.error(), refusal(mounted.error()));
    }
    TAVELIN_ASSERT(state_ == State::mounted);
}

Outcome<void> ModuleHost::close() {
    std::optional<fskit::Error> first;
    const auto note = [&](const Outcome<void>& step) {
        if (!step && !first) {
            first = step.error();
        }
    };
    // Later steps are taken whatever failed before, or the device would stay claimed. The first
    // failure is answered: the others follow from it.
    if (state_ == State::mounted) {
        note(volume_->synchronize(fskit::FSSyncFlags::wait));
        unmount();
    }
    if (state_ == State::unmounted || state_ == State::active) {
        note(deactivate());
    }
    if (state_ == State::loaded) {
        note(unload());
    }
    TAVELIN_ASSERT(state_ == State::idle);
    return first;
}

std::unique_ptr<ModuleHost> ModuleHost::openImage(const std::filesystem::path& path,
                                                  const Options& options,
                                                  ImageResource::Settings settings) {
    settings.readOnly = settings.readOnly || Driver2::MountOptions(options).readOnly;
    auto host = std::make_unique<ModuleHost>(std::make_shared<ImageResource>(path, settings));
    host->open(options);
    return host;
}

VolumeClient& ModuleHost::volume() {
    if (state_ != State::active && state_ != State::mounted) {
        fatal("the module host has no active volume");
    }
    TAVELIN_ASSERT(volume_ != nullptr);
    return *volume_;
}

// ---- One step each -----------------------------------------------------------------------------

void ModuleHost::expect(bool inTurn, const char* step) const {
    if (!inTurn) {
        fatal(std::string("the module host takes this step out of turn: ") + step);
    }
}

fskit::FSProbeResult ModuleHost::probe() {
    return module_->probeResource(resource_);
}

Outcome<void> ModuleHost::load(const Options& options) {
    expect(state_ == State::idle, "load");
    const auto loaded = module_->loadResource(resource_, {options});
    if (!loaded) {
        return loaded.error();
    }
    auto volume = std::dynamic_pointer_cast<TavelinVolume>(*loaded);
    if (volume == nullptr) {
        fatal("the module host was given a volume of another file system");
    }
    volume_ = std::make_unique<VolumeClient>(std::move(volume));
    state_ = State::loaded;
    // Known only here: the volume falls back to reading while it loads, when its check or its state
    // forbids writing.
    const bool mayWrite = resource_->isWritable() && !Driver2::MountOptions(options).readOnly;
    fellBack_ = mayWrite && volume_->isReadOnly();
    return {};
}

std::string ModuleHost::refusalToWrite() const {
    const auto* const own = dynamic_cast<const TavelinFileSystem*>(module_.get());
    return own == nullptr ? "" : own->refusalToWrite;
}

std::vector<std::string> ModuleHost::notices() const {
    const auto* const own = dynamic_cast<const TavelinFileSystem*>(module_.get());
    return own == nullptr ? std::vector<std::string>() : own->notices;
}

Outcome<void> ModuleHost::activate(const Options& options) {
    expect(state_ == State::loaded, "activate");
    auto answer = volume_->activate({options});
    state_ = answer ? State::active : State::loaded;
    return answer;
}

Outcome<void> ModuleHost::mount(const Options& options) {
    expect(state_ == State::active, "mount");
    auto answer = volume_->mount({options});
    state_ = answer ? State::mounted : State::active;
    return answer;
}

void ModuleHost::unmount() {
    expect(state_ == State::mounted, "unmount");
    volume_->unmount();
    state_ = State::unmounted;
}

Outcome<void> ModuleHost::deactivate() {
    expect(state_ == State::unmounted || state_ == State::active, "deactivate");
    auto answer = volume_->deactivate();
    state_ = State::loaded; // whatever the answer: the items are gone
    return answer;
}

Outcome<void> ModuleHost::unload() {
    expect(state_ == State::loaded, "unload");
    const auto unloaded = module_->unloadResource(resource_, {});
    state_ = State::idle; // a module forgets the volume even when it cannot unload it cleanly
    if (!unloaded) {
        return unloaded.error();
    }
    // The module's last writes ended in the host's caches. Success means the medium.
    return resource_->flushToMedium();
}

// ---- Maintenance -------------------------------------------------------------------------------

Outcome<void> ModuleHost::check(const Options& options) {
    // The task may end on a thread of the module's, which still has it when wait() has returned: so
    // it is shared.
    const auto task = std::make_shared<AwaitedTask>();
    if (const auto started = module_->startCheck(task, {options}); !started) {
        return started.error();
    }
    return task->wait();
}

} // namespace tavelin

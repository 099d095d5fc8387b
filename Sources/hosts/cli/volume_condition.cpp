#include "hosts/cli/volume_condition.hpp"

#include "core/ntfs_error.hpp"
#include "hosts/cli/image_device.hpp"

#include <array>
#include <cstring>
#include <unistd.h>

namespace tavelin::cli {
namespace {

using check::LogState;
using check::VolumeState;

/// JSON values; programs rely on the words.
std::string_view logName(LogState state) {
    switch (state) {
    case LogState::empty:
        return "empty";
    case LogState::clean:
        return "clean";
    case LogState::inUse:
        return "in-use";
    case LogState::resetByChk:
        return "reset-by-chkdsk";
    case LogState::unknown:
        break;
    }
    return "unknown";
}

/// Windows writes these four bytes at the start of a memory image that it will start from.
bool isHibernated(VolumeClient& volume) {
    const auto found = volume.lookup(volume.root(), "hiberfil.sys");
    std::array<std::byte, 4> magic{};
    if (!found || volume.read(found->item, 0, magic).get() != magic.size()) {
        return false;
    }
    return std::memcmp(magic.data(), "hibr", magic.size()) == 0 ||
           std::memcmp(magic.data(), "HIBR", magic.size()) == 0;
}

std::string whyReadOnly(const Condition& condition, const std::string& path) {
    if (condition.isHibernated.value_or(false) ||
        (condition.state && condition.state->isFastStarted)) {
        return "Windows is hibernated on it, or was shut down with fast startup";
    }
    if (access(path.c_str(), W_OK) != 0) {
        return "you may not write to it";
    }
    return {};
}

bool hasFlag(const Condition& condition, std::uint16_t flag) {
    return condition.state && (condition.state->flags & flag) != 0;
}

} // namespace

Condition conditionOf(const ImagePlace& place, VolumeClient* volume) {
    Condition condition;
    try {
        const auto device = openDevice(place);
        condition.isJournalWaiting = device->recovered() > 0;
        condition.isJournalRefused = device->wasRefused();
        condition.whyNoJournal = describe(device->absence());
        condition.state = check::readVolumeState(*device);
    } catch (const NTFSError&) {
        // The command itself reports an image that cannot be read.
    }
    if (volume != nullptr) {
        try {
            condition.isHibernated = isHibernated(*volume);
        } catch (const fskit::Error&) {
            // A damaged hiberfil.sys: the question stays open.
        }
    }
    condition.whyReadOnly = whyReadOnly(condition, place.path);
    return condition;
}

JSONObject conditionObject(const Condition& condition) {
    JSONObject result;
    if (condition.state) {
        result.add("dirty", hasFlag(condition, VolumeState::kDirty))
            .add("chkdskUnderway", hasFlag(condition, VolumeState::kChkdskUnderway))
            .add("modifiedByChkdsk", hasFlag(condition, VolumeState::kModifiedByChkdsk))
            .add("fastStarted", condition.state->isFastStarted)
            .add("windowsLog", logName(condition.state->log));
    }
    if (condition.isHibernated) {
        result.add("hibernated", *condition.isHibernated);
    }
    result.add("journalWaiting", condition.isJournalWaiting)
        .add("journalRefused", condition.isJournalRefused)
        .add("journalPossible", condition.whyNoJournal.empty())
        .add("writable", condition.whyReadOnly.empty());
    if (!condition.whyNoJournal.empty()) {
        result.add("whyNoJournal", condition.whyNoJournal);
    }
    if (!condition.whyReadOnly.empty()) {
        result.add("whyReadOnly", condition.whyReadOnly);
    }
    return result;
}

std::vector<std::string> conditionSentences(const Condition& condition) {
    std::vector<std::string> sentences;
    const auto tell = [&](bool isSo, const char* sentence) {
        if (isSo) {
            sentences.emplace_back(sentence);
        }
    };
    tell(!condition.state, "unknown: its structures cannot be read");
    tell(hasFlag(condition, VolumeState::kDirty),
         "marked dirty: Windows will check it when it sees it next");
    tell(hasFlag(condition, VolumeState::kChkdskUnderway), "a chkdsk was interrupted");
    tell(hasFlag(condition, VolumeState::kModifiedByChkdsk), "changed by chkdsk, not used since");
    tell(condition.isHibernated.value_or(false), "Windows is hibernated on it");
    tell(condition.state && condition.state->isFastStarted,
         "shut down with fast startup: Windows keeps changes of it in memory");
    tell(condition.state && condition.state->log == LogState::inUse,
         "Windows has not closed its journal");
    tell(condition.isJournalWaiting, "a flush was interrupted: the next mount completes it");
    tell(condition.isJournalRefused, JournaledDevice::kRefusal);
    if (!condition.whyNoJournal.empty()) {
        sentences.push_back("works without a journal: " + condition.whyNoJournal);
    }
    if (!condition.whyReadOnly.empty()) {
        sentences.push_back("can only be read: " + condition.whyReadOnly);
    }
    tell(sentences.empty(), "clean");
    return sentences;
}

} // namespace tavelin::cli

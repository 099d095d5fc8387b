/// In which condition a volume is, for `info` and `probe`: what other systems left on it, what
/// waits in the journals, and whether it can be written.
#pragma once

#include "check/volume_state.hpp"
#include "hosting/volume_client.hpp"
#include "hosts/cli/image_place.hpp"
#include "hosts/cli/json.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tavelin::cli {

/// Facts only; conditionSentences() says what they mean for the user.
struct Condition {
    std::optional<check::VolumeState> state; ///< absent when the volume cannot be read
    bool isJournalWaiting = false;           ///< ours: the next mount completes a flush
    bool isJournalRefused = false;           ///< ours: the next mount leaves it out
    std::string whyNoJournal;                ///< empty when the volume can have one
    std::optional<bool> isHibernated;        ///< absent when the volume is not open
    /// A sentence part for the user.
    std::string whyReadOnly; ///< empty when nothing speaks against writing
};

/// Reads it from the image, and from `volume` where that is open. Never throws but for memory.
[[nodiscard]] Condition conditionOf(const ImagePlace& place, VolumeClient* volume);

/// The members that docs/json.md describes.
[[nodiscard]] JSONObject conditionObject(const Condition& condition);
/// One sentence for each thing that a user should know, without a full stop; "clean" for none.
[[nodiscard]] std::vector<std::string> conditionSentences(const Condition& condition);

} // namespace tavelin::cli

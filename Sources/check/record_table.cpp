#include "check/private/record_table.hpp"

#include "platform/assert.hpp"

namespace tavelin::check {

RecordState* RecordTable::find(std::uint64_t record) noexcept {
    const auto chunk = chunks_.find(record / kChunkRecords);
    if (chunk == chunks_.end()) {
        return nullptr;
    }
    // A state that was only touched is of a record that an attribute list names and no pass has
    // found in use.
    RecordState& state = chunk->second[record % kChunkRecords];
    return state.has(RecordState::inUse) ? &state : nullptr;
}

RecordState& RecordTable::touch(std::uint64_t record) {
    TAVELIN_ASSERT(record <= UINT32_MAX); // RecordState::parent has 32 bits
    std::unique_ptr<RecordState[]>& chunk = chunks_[record / kChunkRecords];
    if (!chunk) {
        chunk = std::make_unique<RecordState[]>(kChunkRecords);
    }
    return chunk[record % kChunkRecords];
}

RecordState& RecordTable::add(std::uint64_t record) {
    RecordState& state = touch(record);
    TAVELIN_ASSERT(!state.has(RecordState::inUse)); // each record is read once
    state.set(RecordState::inUse);
    return state;
}

} // namespace tavelin::check

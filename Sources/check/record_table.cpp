#include "check/private/record_table.hpp"

namespace tavelin::check {

RecordState* RecordTable::find(std::uint64_t record) noexcept {
    const auto chunk = chunks_.find(record / kChunkRecords);
    if (chunk == chunks_.end()) {
        return nullptr;
    }
    RecordState& state = chunk->second[record % kChunkRecords];
    return state.has(RecordState::inUse) ? &state : nullptr;
}

RecordState& RecordTable::touch(std::uint64_t record) {
    std::unique_ptr<RecordState[]>& chunk = chunks_[record / kChunkRecords];
    if (!chunk) {
        chunk = std::make_unique<RecordState[]>(kChunkRecords);
    }
    return chunk[record % kChunkRecords];
}

RecordState& RecordTable::add(std::uint64_t record) {
    RecordState& state = touch(record);
    state.set(RecordState::inUse);
    return state;
}

} // namespace tavelin::check

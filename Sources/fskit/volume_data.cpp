// File contents and link targets. Reads and writes are not counted: they are too many.
#include "fskit/private/attempt.hpp"
#include "fskit/private/count_request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/checked.hpp"

#include <algorithm>

namespace tavelin {

namespace {

std::uint64_t unsignedOffset(std::int64_t offset) {
    if (offset < 0) {
        fatal("a file offset is negative");
    }
    return static_cast<std::uint64_t>(offset);
}

} // namespace

void TavelinVolume::read(const fskit::FSItemRef& item, std::int64_t offset, std::size_t length,
                         fskit::FSMutableFileDataBuffer& buffer, const fskit::CountReply& reply) {
    if (isNull(item)) {
        reply(0, missingItem());
        return;
    }
    const auto count = attempt("read(from:at:length:into:replyHandler:)", [&] {
        return ntfs->read(n(item).ino, unsignedOffset(offset), buffer.mutableBytes(),
                          std::min(length, buffer.length()));
    });
    reply(count.value.value_or(0), count.error);
}

void TavelinVolume::write(std::span<const std::byte> contents, const fskit::FSItemRef& item,
                          std::int64_t offset, const fskit::CountReply& reply) {
    if (isNull(item)) {
        reply(0, missingItem());
        return;
    }
    const auto count = attempt("write(contents:to:at:replyHandler:)", [&] {
        return ntfs->write(n(item).ino, unsignedOffset(offset), contents);
    });
    reply(count.value.value_or(0), count.error);
}

void TavelinVolume::readSymbolicLink(const fskit::FSItemRef& item, const fskit::NameReply& reply) {
    countRequest<"readSymbolicLink">();
    if (isNull(item)) {
        reply(std::nullopt, missingItem());
        return;
    }
    const auto target = attempt("readSymbolicLink(_:replyHandler:)",
                                [&] { return fskit::FSFileName(ntfs->readlink(n(item).ino)); });
    reply(target.value, target.error);
}

} // namespace tavelin

// Extended attributes: named streams.
#include "fskit/private/attempt.hpp"
#include "fskit/private/count_request.hpp"
#include "fskit/tavelin_volume.hpp"

namespace tavelin {

namespace {

NTFSVolume::XattrPolicy volumePolicy(fskit::FSSetXattrPolicy policy) noexcept {
    switch (policy) {
    case fskit::FSSetXattrPolicy::mustCreate:
        return NTFSVolume::XattrPolicy::mustCreate;
    case fskit::FSSetXattrPolicy::mustReplace:
        return NTFSVolume::XattrPolicy::mustReplace;
    default:
        return NTFSVolume::XattrPolicy::always;
    }
}

} // namespace

void TavelinVolume::getXattr(const fskit::FSFileName& named, const fskit::FSItemRef& item,
                             const fskit::DataReply& reply) {
    countRequest<"getXattr">();
    if (isNull(item)) {
        reply({}, missingItem());
        return;
    }
    auto read = attempt("getXattr(named:of:replyHandler:)",
                        [&] { return ntfs->xattr(name(named), n(item).ino); });
    reply(std::move(read.value).value_or(std::vector<std::byte>()), read.error);
}

void TavelinVolume::setXattr(const fskit::FSFileName& named,
                             const std::optional<std::span<const std::byte>>& value,
                             const fskit::FSItemRef& item, fskit::FSSetXattrPolicy policy,
                             const fskit::ErrorReply& reply) {
    countRequest<"setXattr">();
    if (isNull(item)) {
        reply(missingItem());
        return;
    }
    reply(attempt("setXattr(named:to:on:policy:replyHandler:)", [&] {
              const std::string_view attribute = name(named);
              if (policy == fskit::FSSetXattrPolicy::remove) {
                  ntfs->removeXattr(attribute, n(item).ino);
              } else {
                  ntfs->setXattr(attribute, n(item).ino,
                                 value.value_or(std::span<const std::byte>()),
                                 volumePolicy(policy));
              }
          }).error);
}

void TavelinVolume::listXattrs(const fskit::FSItemRef& item, const fskit::NamesReply& reply) {
    countRequest<"listXattrs">();
    if (isNull(item)) {
        reply({}, missingItem());
        return;
    }
    auto names = attempt("listXattrs(of:replyHandler:)", [&] {
        std::vector<fskit::FSFileName> list;
        for (const std::string& attribute : ntfs->xattrNames(n(item).ino)) {
            list.emplace_back(attribute);
        }
        return list;
    });
    reply(std::move(names.value).value_or(std::vector<fskit::FSFileName>()), names.error);
}

} // namespace tavelin

#include "hosts/cli/failure.hpp"

#include "core/reparse_tags.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace tavelin::cli {
namespace {

// explainData() and the listings convert between the two, whose numbers must agree.
static_assert(static_cast<int>(fskit::FSItemDataState::here) ==
              static_cast<int>(NTFSDataState::here));
static_assert(static_cast<int>(fskit::FSItemDataState::systemCompressed) ==
              static_cast<int>(NTFSDataState::systemCompressed));
static_assert(static_cast<int>(fskit::FSItemDataState::elsewhere) ==
              static_cast<int>(NTFSDataState::elsewhere));
static_assert(static_cast<int>(fskit::FSItemDataState::encrypted) ==
              static_cast<int>(NTFSDataState::encrypted));

/// The names that errors of volumes and of the host's files have in <errno.h>.
constexpr std::array kErrorNames{
    std::pair{kEPERM, "EPERM"},
    std::pair{kENOENT, "ENOENT"},
    std::pair{kEIO, "EIO"},
    std::pair{kENXIO, "ENXIO"},
    std::pair{kENOMEM, "ENOMEM"},
    std::pair{kEACCES, "EACCES"},
    std::pair{kENOTBLK, "ENOTBLK"},
    std::pair{kEBUSY, "EBUSY"},
    std::pair{kEEXIST, "EEXIST"},
    std::pair{kENOTDIR, "ENOTDIR"},
    std::pair{kEISDIR, "EISDIR"},
    std::pair{kEINVAL, "EINVAL"},
    std::pair{kEMFILE, "EMFILE"},
    std::pair{kEFBIG, "EFBIG"},
    std::pair{kENOSPC, "ENOSPC"},
    std::pair{kEROFS, "EROFS"},
    std::pair{kEPIPE, "EPIPE"},
    std::pair{kEAGAIN, "EAGAIN"},
    std::pair{kENOTSUP, "ENOTSUP"},
    std::pair{kELOOP, "ELOOP"},
    std::pair{kENAMETOOLONG, "ENAMETOOLONG"},
    std::pair{kENOTEMPTY, "ENOTEMPTY"},
    std::pair{kESTALE, "ESTALE"},
    std::pair{kEILSEQ, "EILSEQ"},
    std::pair{kENOATTR, "ENOATTR"},
};

/// The description of an error. Errors that have a remedy on an NTFS volume have a text of their
/// own; the others have the system's.
std::string inWords(std::int32_t number) {
    switch (number) {
    case kENOSPC:
        return "the volume is full: remove something, or use a larger volume";
    case kEROFS:
        return "the volume is open for reading only; nothing was changed";
    case kENAMETOOLONG:
        return "the name is too long: NTFS allows 255 UTF-16 units";
    case kEINVAL:
        return "not a valid name or value for this volume: names have no \"/\" and are not \".\" "
               "or \"..\"; -o windows_names also refuses what Windows does";
    case kEILSEQ:
        return "not valid UTF-8 text";
    case kENOATTR:
        return "there is no stream of that name: list them with 'tavelin xattr list'";
    case kENOTEMPTY:
        return "the directory is not empty: 'tavelin rm -r' removes it with its contents";
    case kENOTSUP:
        return "NTFS volumes do not offer that here";
    case kELOOP:
        return "too many symbolic links, do they form a circle?";
    case kEIO:
        return "input/output error: the volume is damaged or its device fails; copy what can still "
               "be read, then check it with 'chkdsk /f' in Windows";
    default:
        return errorText(number);
    }
}

} // namespace

std::int32_t numberOf(const fskit::Error& error) noexcept {
    return error.isPOSIX() ? static_cast<std::int32_t>(error.code()) : kEIO;
}

std::string errorName(std::int32_t number) {
    const auto* const found =
        std::find_if(kErrorNames.begin(), kErrorNames.end(),
                     [&](const auto& entry) { return entry.first == number; });
    if (found != kErrorNames.end()) {
        return found->second;
    }
    return number == 0 ? "" : fmt::format("E{}", number);
}

bool endsEverything(std::int32_t number) noexcept {
    switch (number) {
    case kENOSPC:
    case kEDQUOT:
    case kENXIO:
    case kEROFS:
    case kENOMEM:
    case kEMFILE:
    case kENFILE:
        return true;
    default:
        return false;
    }
}

void throwItemError(std::string_view path, std::int32_t number) {
    throw ItemFailure(explain(path, fskit::fs_errorForPOSIXError(number)), path, number);
}

void throwNoContent(std::string_view path, const fskit::FSItemAttributes& attributes) {
    const fskit::FSItemNativeAttributes& native = attributes.native();
    const std::string reason =
        explainRefusal(static_cast<NTFSDataState>(native.dataState), native.reparseTag);
    throw ItemFailure(fmt::format("{}: {}", escaped(path),
                                  reason.empty() ? fmt::format("is a {}, which has no bytes",
                                                               typeName(attributes.type()))
                                                 : reason),
                      path, kENOTSUP);
}

void throwVolumeError(std::string_view path, const fskit::Error& error,
                      const fskit::FSItemAttributes& attributes) {
    const std::int32_t number = numberOf(error);
    if (endsEverything(number)) {
        throw Failure(explain(path, error), path, number);
    }
    throw ItemFailure(explainData(path, error, attributes), path, number);
}

void throwHostError(std::string_view path) {
    throwHostError(path, errno);
}

void throwHostError(std::string_view path, int hostError) {
    const std::int32_t number = fromHost(hostError);
    const std::string text = explainHost(path, hostError);
    if (endsEverything(number) || number == kEIO) {
        throw Failure(text, path, number);
    }
    throw ItemFailure(text, path, number);
}

std::string explain(std::string_view subject, const fskit::Error& error) {
    return fmt::format("{}: {}", escaped(subject),
                       error.isPOSIX() ? inWords(numberOf(error)) : error.localizedDescription());
}

std::string explainData(std::string_view subject, const fskit::Error& error,
                        const fskit::FSItemAttributes& attributes) {
    const std::int32_t number = numberOf(error);
    // A device error on such a file is still a device error: only a refusal has its cause in the
    // data's state.
    const bool isRefusal = number == kENOTSUP || number == kEOPNOTSUPP || number == kEACCES;
    const fskit::FSItemNativeAttributes& native = attributes.native();
    const std::string reason =
        isRefusal ? explainRefusal(static_cast<NTFSDataState>(native.dataState), native.reparseTag)
                  : "";
    return reason.empty() ? explain(subject, error)
                          : fmt::format("{}: {}", escaped(subject), reason);
}

std::string explainHost(std::string_view subject, int hostError) {
    return fmt::format("{}: {}", escaped(subject), errorText(fromHost(hostError)));
}

} // namespace tavelin::cli

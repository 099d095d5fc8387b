#include "hosts/cli/failure.hpp"

#include "core/reparse_tags.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

namespace tavelin::cli {
namespace {

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

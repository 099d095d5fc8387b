#include "platform/error_numbers.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace tavelin {

namespace {

/// One row of the table: a macOS number and the host's number of the same meaning.
struct Pair {
    std::int32_t number;
    int host;
};

// Where a host number stands in two rows, the first row says what it becomes above the border.
constexpr Pair kTable[] = {
    {kEPERM, EPERM},
    {kENOENT, ENOENT},
    {kESRCH, ESRCH},
    {kEINTR, EINTR},
    {kEIO, EIO},
    {kENXIO, ENXIO},
    {kE2BIG, E2BIG},
    {kENOEXEC, ENOEXEC},
    {kEBADF, EBADF},
    {kECHILD, ECHILD},
    {kEDEADLK, EDEADLK},
    {kENOMEM, ENOMEM},
    {kEACCES, EACCES},
    {kEFAULT, EFAULT},
    {kENOTBLK, ENOTBLK},
    {kEBUSY, EBUSY},
    {kEEXIST, EEXIST},
    {kEXDEV, EXDEV},
    {kENODEV, ENODEV},
    {kENOTDIR, ENOTDIR},
    {kEISDIR, EISDIR},
    {kEINVAL, EINVAL},
    {kENFILE, ENFILE},
    {kEMFILE, EMFILE},
    {kENOTTY, ENOTTY},
    {kETXTBSY, ETXTBSY},
    {kEFBIG, EFBIG},
    {kENOSPC, ENOSPC},
    {kESPIPE, ESPIPE},
    {kEROFS, EROFS},
    {kEMLINK, EMLINK},
    {kEPIPE, EPIPE},
    {kEDOM, EDOM},
    {kERANGE, ERANGE},
    {kEAGAIN, EAGAIN},
    {kEINPROGRESS, EINPROGRESS},
    {kEALREADY, EALREADY},
    {kENOTSOCK, ENOTSOCK},
    {kEDESTADDRREQ, EDESTADDRREQ},
    {kEMSGSIZE, EMSGSIZE},
    {kEPROTOTYPE, EPROTOTYPE},
    {kENOPROTOOPT, ENOPROTOOPT},
    {kEPROTONOSUPPORT, EPROTONOSUPPORT},
    {kESOCKTNOSUPPORT, ESOCKTNOSUPPORT},
    {kENOTSUP, ENOTSUP},
    {kEPFNOSUPPORT, EPFNOSUPPORT},
    {kEAFNOSUPPORT, EAFNOSUPPORT},
    {kEADDRINUSE, EADDRINUSE},
    {kEADDRNOTAVAIL, EADDRNOTAVAIL},
    {kENETDOWN, ENETDOWN},
    {kENETUNREACH, ENETUNREACH},
    {kENETRESET, ENETRESET},
    {kECONNABORTED, ECONNABORTED},
    {kECONNRESET, ECONNRESET},
    {kENOBUFS, ENOBUFS},
    {kEISCONN, EISCONN},
    {kENOTCONN, ENOTCONN},
    {kESHUTDOWN, ESHUTDOWN},
    {kETOOMANYREFS, ETOOMANYREFS},
    {kETIMEDOUT, ETIMEDOUT},
    {kECONNREFUSED, ECONNREFUSED},
    {kELOOP, ELOOP},
    {kENAMETOOLONG, ENAMETOOLONG},
    {kEHOSTDOWN, EHOSTDOWN},
    {kEHOSTUNREACH, EHOSTUNREACH},
    {kENOTEMPTY, ENOTEMPTY},
    {kEUSERS, EUSERS},
    {kEDQUOT, EDQUOT},
    {kESTALE, ESTALE},
    {kEREMOTE, EREMOTE},
    {kENOLCK, ENOLCK},
    {kENOSYS, ENOSYS},
    {kEOVERFLOW, EOVERFLOW},
    {kECANCELED, ECANCELED},
    {kEIDRM, EIDRM},
    {kENOMSG, ENOMSG},
    {kEILSEQ, EILSEQ},
// Linux reports an extended attribute that is not set as ENODATA. This row stands above the one
// for kENODATA, so that ENODATA becomes kENOATTR above the border.
#ifdef ENOATTR
    {kENOATTR, ENOATTR},
#else
    {kENOATTR, ENODATA},
#endif
    {kEBADMSG, EBADMSG},
    {kEMULTIHOP, EMULTIHOP},
    {kENODATA, ENODATA},
    {kENOLINK, ENOLINK},
    {kENOSR, ENOSR},
    {kENOSTR, ENOSTR},
    {kEPROTO, EPROTO},
    {kETIME, ETIME},
    {kEOPNOTSUPP, EOPNOTSUPP},
    {kENOTRECOVERABLE, ENOTRECOVERABLE},
    {kEOWNERDEAD, EOWNERDEAD},
};

// toHost() would answer the last of two rows silently.
constexpr bool isEachNumberInOneRow() {
    for (const Pair& pair : kTable) {
        int rows = 0;
        for (const Pair& other : kTable) {
            rows += other.number == pair.number ? 1 : 0;
        }
        if (rows != 1) {
            return false;
        }
    }
    return true;
}
static_assert(isEachNumberInOneRow(), "a number has two counterparts");
// macOS's numbers are 1 to 106; 17 of them, of remote calls and executables, exist there only.
static_assert(std::size(kTable) == 106 - 17, "a number has no counterpart");

#ifdef __APPLE__
constexpr bool namesTheHostsOwnNumbers() {
    for (const Pair& pair : kTable) {
        if (pair.number != pair.host) {
            return false;
        }
    }
    return true;
}
static_assert(namesTheHostsOwnNumbers(), "these constants are macOS's error numbers");
constexpr bool kHostIsMacOS = true;
#else
constexpr bool kHostIsMacOS = false;
#endif

// One slot per number; 0 where there is no counterpart. Both numberings stay below the limit,
// or the tables would not compile.
constexpr std::size_t kLimit = 160;
static_assert(kEOWNERDEAD < static_cast<std::int32_t>(kLimit));
using Slots = std::array<std::int32_t, kLimit>;

constexpr Slots makeFromHost() {
    Slots slots{};
    for (const Pair& pair : kTable) {
        // The first row wins, which is the rule at the table.
        auto& slot = slots[static_cast<std::size_t>(pair.host)];
        if (slot == 0) {
            slot = pair.number;
        }
    }
    return slots;
}

constexpr Slots makeToHost() {
    Slots slots{};
    for (const Pair& pair : kTable) {
        slots[static_cast<std::size_t>(pair.number)] = pair.host;
    }
    return slots;
}

constexpr Slots kFromHost = makeFromHost();
constexpr Slots kToHost = makeToHost();

/// The counterpart, or 0 when there is none.
std::int32_t find(const Slots& slots, int number) noexcept {
    if (number < 0 || static_cast<std::size_t>(number) >= slots.size()) {
        return 0;
    }
    return slots[static_cast<std::size_t>(number)];
}

// strerror_r comes in two forms: GNU's returns the text, POSIX's fills the buffer. Which one a
// build gets depends on feature macros, so overload resolution picks the right source.
[[maybe_unused]] const char* chosen(const char* returned, const char*) {
    return returned;
}
[[maybe_unused]] const char* chosen(int, const char* filled) {
    return filled;
}

std::string hostText(int hostError) {
    char buffer[256] = "";
    return chosen(strerror_r(hostError, buffer, sizeof buffer), buffer);
}

} // namespace

std::int32_t fromHost(int hostError) noexcept {
    if (kHostIsMacOS || hostError == 0) {
        return hostError;
    }
    const std::int32_t number = find(kFromHost, hostError);
    return number != 0 ? number : kEIO;
}

int toHost(std::int32_t error) noexcept {
    if (kHostIsMacOS || error == 0) {
        return error;
    }
    const int host = find(kToHost, error);
    return host != 0 ? host : EIO;
}

std::string errorText(std::int32_t error) {
    if (kHostIsMacOS || error == 0) {
        return hostText(error);
    }
    if (const int host = find(kToHost, error); host != 0) {
        return hostText(host);
    }
    // The number has no meaning above the border, but the host may use it for an error of its own,
    // so the host's text for it would be wrong. The host's text for a number that no system uses
    // is taken instead, and the given number is put into it.
    constexpr int kUnknown = 99999;
    const std::string unknown = std::to_string(kUnknown);
    std::string text = hostText(kUnknown);
    if (const auto at = text.find(unknown); at != std::string::npos) {
        text.replace(at, unknown.size(), std::to_string(error));
    }
    return text;
}

} // namespace tavelin

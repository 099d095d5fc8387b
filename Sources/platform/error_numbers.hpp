/// Error numbers. The bridge and the block devices speak the host's errno; everything above them
/// (NTFSError, replies, tallies, events) speaks one numbering on every host, macOS's, whose values
/// come from its <sys/errno.h>. This header names those numbers; error_numbers.cpp holds the one
/// table that relates them to the host's. On macOS both numberings are the same.
///
/// Rules for what has no counterpart, so that every number has exactly one answer:
///  - 0 means success and stays 0;
///  - a host number that macOS does not have, or that is no errno at all, becomes kEIO;
///  - a macOS number that the host does not have becomes EIO;
///  - ENODATA of a host without ENOATTR is kENOATTR (that is how the bridge reports a stream that
///    does not exist); kENODATA goes back to the same ENODATA;
///  - where the host has one number for ENOTSUP and EOPNOTSUPP it is kENOTSUP; both go back to it.
///
/// A reply that crossed the border twice therefore keeps its meaning wherever both systems have
/// the number. All functions are pure and may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace tavelin {

// 1 to 34: the numbers of the first Unix systems, equal on macOS and Linux but for kEDEADLK.
// 35 (kEAGAIN) takes the place of Linux's 11, so no value may be passed on without conversion.
/// System files and what NTFS cannot do to an item, such as a hard link to a directory. Of a mount:
/// the volume is hibernated.
inline constexpr std::int32_t kEPERM = 1;
/// A name or an item that is not there.
inline constexpr std::int32_t kENOENT = 2;
inline constexpr std::int32_t kESRCH = 3;
/// Calls that a signal interrupts are repeated, see uninterrupted().
inline constexpr std::int32_t kEINTR = 4;
/// The device failed, or the volume is damaged where the request led. Also the answer for whatever
/// has no number here.
inline constexpr std::int32_t kEIO = 5;
/// The volume is unmounted, or its device is gone.
inline constexpr std::int32_t kENXIO = 6;
/// A value that is too long to be handed out as a whole.
inline constexpr std::int32_t kE2BIG = 7;
inline constexpr std::int32_t kENOEXEC = 8;
inline constexpr std::int32_t kEBADF = 9;
inline constexpr std::int32_t kECHILD = 10;
inline constexpr std::int32_t kEDEADLK = 11;
/// No memory. The request may succeed when it is tried again.
inline constexpr std::int32_t kENOMEM = 12;
/// Data that is encrypted, above all.
inline constexpr std::int32_t kEACCES = 13;
inline constexpr std::int32_t kEFAULT = 14;
inline constexpr std::int32_t kENOTBLK = 15;
/// A mount or an image that somebody uses.
inline constexpr std::int32_t kEBUSY = 16;
/// A name that is taken.
inline constexpr std::int32_t kEEXIST = 17;
inline constexpr std::int32_t kEXDEV = 18;
/// A resource that is no block device.
inline constexpr std::int32_t kENODEV = 19;
/// An item on the way that is no directory.
inline constexpr std::int32_t kENOTDIR = 20;
/// A directory where a file is wanted.
inline constexpr std::int32_t kEISDIR = 21;
/// An argument that no volume can do anything with, such as an empty name.
inline constexpr std::int32_t kEINVAL = 22;
inline constexpr std::int32_t kENFILE = 23;
inline constexpr std::int32_t kEMFILE = 24;
inline constexpr std::int32_t kENOTTY = 25;
inline constexpr std::int32_t kETXTBSY = 26;
/// A file beyond the size that NTFS can have.
inline constexpr std::int32_t kEFBIG = 27;
/// The volume is full, or has less room left than a change may need.
inline constexpr std::int32_t kENOSPC = 28;
inline constexpr std::int32_t kESPIPE = 29;
/// The volume, the mount or the medium takes no changes.
inline constexpr std::int32_t kEROFS = 30;
inline constexpr std::int32_t kEMLINK = 31;
inline constexpr std::int32_t kEPIPE = 32;
inline constexpr std::int32_t kEDOM = 33;
inline constexpr std::int32_t kERANGE = 34;
inline constexpr std::int32_t kEAGAIN = 35;
// 36 to 61: sockets, as in BSD. The values differ from Linux's from here on.
inline constexpr std::int32_t kEINPROGRESS = 36;
inline constexpr std::int32_t kEALREADY = 37;
inline constexpr std::int32_t kENOTSOCK = 38;
inline constexpr std::int32_t kEDESTADDRREQ = 39;
inline constexpr std::int32_t kEMSGSIZE = 40;
inline constexpr std::int32_t kEPROTOTYPE = 41;
inline constexpr std::int32_t kENOPROTOOPT = 42;
inline constexpr std::int32_t kEPROTONOSUPPORT = 43;
inline constexpr std::int32_t kESOCKTNOSUPPORT = 44;
/// A request that this system never answers, or data in a form that it does not know.
inline constexpr std::int32_t kENOTSUP = 45;
inline constexpr std::int32_t kEPFNOSUPPORT = 46;
inline constexpr std::int32_t kEAFNOSUPPORT = 47;
inline constexpr std::int32_t kEADDRINUSE = 48;
inline constexpr std::int32_t kEADDRNOTAVAIL = 49;
inline constexpr std::int32_t kENETDOWN = 50;
inline constexpr std::int32_t kENETUNREACH = 51;
inline constexpr std::int32_t kENETRESET = 52;
inline constexpr std::int32_t kECONNABORTED = 53;
inline constexpr std::int32_t kECONNRESET = 54;
inline constexpr std::int32_t kENOBUFS = 55;
inline constexpr std::int32_t kEISCONN = 56;
inline constexpr std::int32_t kENOTCONN = 57;
inline constexpr std::int32_t kESHUTDOWN = 58;
inline constexpr std::int32_t kETOOMANYREFS = 59;
inline constexpr std::int32_t kETIMEDOUT = 60;
inline constexpr std::int32_t kECONNREFUSED = 61;
// 62 to 71: paths, hosts, limits of users, and the network file system.
/// Symbolic links that lead on and on.
inline constexpr std::int32_t kELOOP = 62;
/// A name over 255 UTF-16 units, or a label over 128.
inline constexpr std::int32_t kENAMETOOLONG = 63;
inline constexpr std::int32_t kEHOSTDOWN = 64;
inline constexpr std::int32_t kEHOSTUNREACH = 65;
/// A directory that still has entries.
inline constexpr std::int32_t kENOTEMPTY = 66;
inline constexpr std::int32_t kEUSERS = 68;
inline constexpr std::int32_t kEDQUOT = 69;
/// The item's file record is free or has another owner by now.
inline constexpr std::int32_t kESTALE = 70;
inline constexpr std::int32_t kEREMOTE = 71;
// 77 to 92: locks, executables and messages.
inline constexpr std::int32_t kENOLCK = 77;
inline constexpr std::int32_t kENOSYS = 78;
inline constexpr std::int32_t kEOVERFLOW = 84;
inline constexpr std::int32_t kECANCELED = 89;
inline constexpr std::int32_t kEIDRM = 90;
inline constexpr std::int32_t kENOMSG = 91;
/// A text that has no UTF-16 form, or none in UTF-8.
inline constexpr std::int32_t kEILSEQ = 92;
// 93 (kENOATTR) is the answer for an extended attribute that is not set. Linux answers ENODATA.
inline constexpr std::int32_t kENOATTR = 93;
inline constexpr std::int32_t kEBADMSG = 94;
inline constexpr std::int32_t kEMULTIHOP = 95;
inline constexpr std::int32_t kENODATA = 96;
inline constexpr std::int32_t kENOLINK = 97;
inline constexpr std::int32_t kENOSR = 98;
inline constexpr std::int32_t kENOSTR = 99;
inline constexpr std::int32_t kEPROTO = 100;
inline constexpr std::int32_t kETIME = 101;
// 102 (kEOPNOTSUPP) differs from 45 (kENOTSUP) on macOS alone; Linux has one value for both.
inline constexpr std::int32_t kEOPNOTSUPP = 102;
inline constexpr std::int32_t kENOTRECOVERABLE = 104;
inline constexpr std::int32_t kEOWNERDEAD = 105;

/// The macOS number of a host errno, by the rules above.
[[nodiscard]] std::int32_t fromHost(int hostError) noexcept;

/// The host errno of a macOS number, by the rules above.
[[nodiscard]] int toHost(std::int32_t error) noexcept;

/// The description of a macOS number for people: the host's strerror text of the number's
/// counterpart. Any other number answers the host's text for an unknown error, with the number as
/// given. The language is the process's locale's.
[[nodiscard]] std::string errorText(std::int32_t error);

} // namespace tavelin

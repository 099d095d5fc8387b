// The one door through which libntfs-3g's headers enter.
//
// They are C headers written for a configured source tree: without these macros they declare types
// of their own (struct timespec among them) that clash with the system's, and they define min and
// max as macros, which no C++ header survives. So the C++ headers come first and the macros go.
#pragma once

#define HAVE_STDDEF_H 1
#define HAVE_STDIO_H 1
#define HAVE_STDARG_H 1
#define HAVE_STDINT_H 1
#define HAVE_TIME_H 1
#define HAVE_SYS_TYPES_H 1
#define HAVE_SYS_STAT_H 1
#define HAVE_SYS_PARAM_H 1
#define HAVE_CLOCK_GETTIME 1
#define HAVE_GETTIMEOFDAY 1
#define HAVE_FFS 1
#define HAVE_DAEMON 1
#define HAVE_STRSEP 1
// Where the library finds the host's byte order.
#if defined(__linux__)
#define HAVE_ENDIAN_H 1
#define HAVE_BYTESWAP_H 1
#elif defined(__APPLE__)
#define HAVE_MACHINE_ENDIAN_H 1
#endif

// clang-format off: the order matters
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

extern "C" {
// The library's headers have no linkage of their own.
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/cache.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/ea.h>
#include <ntfs-3g/index.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/layout.h>
#include <ntfs-3g/lcnalloc.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/ntfstime.h>
#include <ntfs-3g/reparse.h>
#include <ntfs-3g/types.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>

#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
}
// clang-format on

// Both are functions of <algorithm> in this project.
#undef min
#undef max

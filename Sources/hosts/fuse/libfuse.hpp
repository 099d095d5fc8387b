/// libfuse's low-level interface, included in one place with the version we are written against.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse3/fuse_lowlevel.h>

#include "lib/base/numbered_ring.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <cstring>

// POSIX names EINTR for neither call, so nothing below retries.
const FileOps kSystemFileOps = {.unlink = ::unlink, .rename = ::rename};

RotationResult numberedRingMoveAside(NumberedRing& ring, std::span<char> numberedName) {
    assert(!numberedName.empty());
    if (ring.count == 0) return RotationResult::kStartOver;

    char* to = numberedName.data();
    std::snprintf(to, numberedName.size(), "%s%d", ring.path, ring.next);
    if (std::strcmp(ring.path, to) == 0) return RotationResult::kRenameFailed;

    // The removal isn't left to rename, which does nothing and reports success where both names are
    // links to one file. Its own failure is no matter: most often nothing is there, and rename
    // reports anything else that stands in the way.
    ring.files->unlink(to);
    if (ring.files->rename(ring.path, to) != 0) return RotationResult::kRenameFailed;

    ring.next = ring.next < ring.count ? ring.next + 1 : 1;
    return RotationResult::kMovedAside;
}

#include "lib/base/numbered_ring.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <cstring>

// POSIX lists EINTR for neither call, so there are no retries below.
const FileOps kSystemFileOps = {.unlink = ::unlink, .rename = ::rename};

RotationResult numberedRingMoveAside(NumberedRing& ring, std::span<char> numberedName) {
    assert(!numberedName.empty());
    if (ring.count == 0) return RotationResult::kStartOver;

    char* to = numberedName.data();
    std::snprintf(to, numberedName.size(), "%s%d", ring.path, ring.next);
    if (std::strcmp(ring.path, to) == 0) return RotationResult::kRenameFailed;

    // The removal isn't left to rename, which does nothing and reports success where both names are
    // links to one file. Its own failure doesn't matter: usually there is no such file, and rename
    // reports any other obstacle.
    ring.files->unlink(to);
    if (ring.files->rename(ring.path, to) != 0) return RotationResult::kRenameFailed;

    ring.next = ring.next < ring.count ? ring.next + 1 : 1;
    return RotationResult::kMovedAside;
}

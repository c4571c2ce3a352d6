// The standard streams, and the signals that come with a write which fails: what every program sets
// up before it opens anything.

#pragma once

// Gives a closed standard stream a descriptor that can't be used, so that no file or socket takes
// its number: reading and writing there fail.
void streamsHold();

// SIGPIPE and SIGXFSZ do nothing: a write without a reader, or beyond the limit of a file's size,
// fails with EPIPE or EFBIG. A handler rather than SIG_IGN, so that programs started by this one
// don't inherit it.
void streamsOutliveFaults();

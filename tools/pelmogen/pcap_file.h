// A capture file in libpcap's format, link type Ethernet:
//
//     0      4         8      12     16        20
//     | magic | version | zone | sigs | snaplen | link |      24 bytes, once
//     | seconds | fraction | caplen | len |              16 bytes, before each packet
//
// The magic gives the byte order of these words and whether fractions are micro- or nanoseconds.
//
// Failure: the file is written under its name with ".part" appended and gets its own name only when
// it is complete. pcapFileClose removes an incomplete file. A device or a pipe is written directly.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/pelmogen/options.h"
#include "tools/pelmogen/sink.h"

struct PcapFile {
    bool bigEndian;
    bool nanoseconds;
    uint32_t snapLength;
    std::string path;
    std::string partPath;  // empty when `path` itself is written, or after the rename
    int descriptor = -1;
    std::vector<uint8_t> buffer;
    size_t used = 0;
};

// False with `errno` set.
[[nodiscard]] bool pcapFileOpen(PcapFile& file, const GeneratorOptions& options);

// Called in every case, also after a failed open.
void pcapFileClose(PcapFile& file);

// The file must outlive the sink.
[[nodiscard]] PacketSink pcapFileSink(PcapFile& file);

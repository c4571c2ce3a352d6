// A client of pmd that is no more than a connection: blocking calls on a socket, one message at a
// time. What is measured with it is the daemon's.
//
// Failure: ends the process with a line.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// A connection that listens to the subject.
[[nodiscard]] int bareConnect(uint16_t port, const char* subject);

// A whole message on the subject, with so many bytes in a field.
[[nodiscard]] std::vector<uint8_t> bareMessage(const char* subject, size_t size);

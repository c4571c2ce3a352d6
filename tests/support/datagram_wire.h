// A peer of reliable endpoints on a plain socket, whose packets are written and read by hand.

#pragma once

#include "lib/base/bytes.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/message_values.h"

struct DatagramWire {
    OwnHandle handle{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in other = {};
    uint16_t port = 0;

    DatagramWire() {
        sockaddr_in own = {};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = kLoopbackHost;
        other = own;
        socklen_t size = sizeof own;
        EXPECT_EQ(bind(handle.number(), reinterpret_cast<sockaddr*>(&own), size), 0);
        EXPECT_EQ(getsockname(handle.number(), reinterpret_cast<sockaddr*>(&own), &size), 0);
        port = ntohs(own.sin_port);
    }

    struct Header {
        uint32_t source, dest;
        uint64_t seq, ack;
        uint8_t flags;
    };
    void write(const Header& header, const Bytes& payload = {}) const {
        Bytes bytes(32);
        storeBe32At(bytes.data(), header.source);
        storeBe32At(bytes.data() + 4, header.dest);
        storeBe64At(bytes.data() + 8, header.seq);
        storeBe64At(bytes.data() + 16, header.ack);
        bytes[24] = header.flags;
        storeBe16At(bytes.data() + 26, 32);
        storeBe16At(bytes.data() + 30, checksum(bytes));
        bytes = bytes + payload;
        EXPECT_EQ(sendto(handle.number(), bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&other), sizeof other),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The next datagram's header, and the rest of it; an empty rest for none within ten seconds.
    Header read(Bytes* rest = nullptr) {
        Bytes bytes(2000);
        pollfd polled = {.fd = handle.number(), .events = POLLIN, .revents = 0};
        socklen_t size = sizeof other;
        const ssize_t got = poll(&polled, 1, 10'000) == 1
                                ? recvfrom(handle.number(), bytes.data(), bytes.size(), 0,
                                           reinterpret_cast<sockaddr*>(&other), &size)
                                : 0;
        EXPECT_GE(got, 32);
        bytes.resize(static_cast<size_t>(got));
        if (got < 32) return {};
        EXPECT_EQ(loadBe16At(bytes.data() + 26), 32) << "the window";
        EXPECT_TRUE(bytes[25] == 0 && bytes[28] == 0 && bytes[29] == 0);
        EXPECT_EQ(loadBe16At(bytes.data() + 30), checksum(bytes));
        if (rest != nullptr) rest->assign(bytes.begin() + 32, bytes.end());
        return {loadBe32At(bytes.data()), loadBe32At(bytes.data() + 4),
                loadBe64At(bytes.data() + 8), loadBe64At(bytes.data() + 16), bytes[24]};
    }

    // Answers the endpoint's SYN; its id.
    uint32_t accept() {
        const Header syn = read();
        EXPECT_TRUE(syn.dest == 0 && syn.seq == 1 && syn.ack == 0 && syn.flags == 2);
        write({kId, syn.source, 1, 2, 2});
        return syn.source;
    }

    static constexpr uint32_t kId = 0x1234;

  private:
    static uint16_t checksum(const Bytes& bytes) {
        uint32_t sum = 0;
        for (size_t i = 0; i < 16; ++i)
            sum += bytes[i];
        return static_cast<uint16_t>(~sum);
    }
};

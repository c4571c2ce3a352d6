// Endpoints in conversations of several packets that random lives seldom or never have: close
// races, bounds, how messages share packets, and what a packet does in each state.

#include "lib/transport/reliable/endpoint_core.h"

#include <gtest/gtest.h>

#include <sstream>

#include "lib/containers/dpa.h"
#include "lib/containers/entry_ring.h"
#include "lib/transport/reliable/connection.h"
#include "tests/support/reliable_net.h"

namespace {

constexpr double kWireBegin = 1.7e9;
constexpr uint32_t kPeerId = 0x70000000;

// The core of an endpoint at one end of a wire, and at the other a peer that a test writes by hand,
// packet by packet. What the core does is text:
//
//     "ACK 1/3, FIN 2/3; LAST_ACK; 1 taken"      kind seq/ack; state if it changed; output
//
// A peer is a port; its connection id is kPeerId and the port.
struct CoreWire : NoCopy {
    CoreWire() {
        const EndpointSink sink = {
            this, onSend, [](void*, void*) {}, [](void*, void*) {},
            [](void* closure) { return static_cast<CoreWire*>(closure)->lastDrawn += 7919; }};
        EXPECT_EQ(endpointInit(&core, sink), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_CreateEx(&message, 32), kStatusSuccess);
    }
    ~CoreWire() {
        endpointFree(&core);
        pelmoMsg_Destroy(message);
    }

    // A packet of the peer, to the last id that the core sent, written as the core's are shown:
    // "DATA! 3/2", "FIN 2/2 x1". After xN it has so many messages, after wN such a window; after sN
    // or dN its source's or destination's id is so much higher than that of either end.
    void take(const std::string& text) {
        const auto has = [&](const char* word) { return text.find(word) != std::string::npos; };
        std::istringstream words(text);
        std::string more, numbers;
        words >> more >> numbers;
        const size_t slash = numbers.find('/');
        const uint64_t seq = std::stoull(numbers);
        const uint64_t ack = slash < numbers.size() ? std::stoull(numbers.substr(slash + 1)) : 0;
        uint64_t window = kReceiveWindow;
        uint32_t messages = has("DATA") ? 1 : 0;
        uint32_t source = has("RST") ? 0 : peerId();
        uint32_t dest = has("SYN") && ack == 0 ? 0 : coreIds[port];
        while (words >> more) {
            const auto number = static_cast<uint32_t>(std::stoul(more.substr(1)));
            if (more[0] == 'x') messages = number;
            if (more[0] == 'w') window = number;
            if (more[0] == 's') source += number;
            if (more[0] == 'd') dest += number;
        }
        std::vector<uint8_t> payload;
        for (const uint8_t* image = msgImage(message); messages > 0; --messages)
            payload.insert(payload.end(), image, image + message->length);
        const int flags = (has("SYN") ? kFlagSyn : 0) | (has("FIN") ? kFlagFin : 0) |
                          (has("RST") ? kFlagRst : 0) | (has("!") ? kFlagCloseNotice : 0);
        takeRaw({source, dest, seq, ack, static_cast<uint8_t>(flags), window}, nullptr, payload);
    }
    void takeRaw(const PacketHeader& header,
                 const FragmentOption* fragment,
                 const std::vector<uint8_t>& payload) {
        uint8_t head[kMostHeadBytes];
        std::vector<uint8_t> bytes(head, head + packetWriteHead(head, header, fragment));
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        endpointTakeDatagram(&core, now, address(), bytes, &out);
        keep();
    }

    pelmoStatus send() { return sendAll({message}, false); }
    pelmoStatus sendAll(const std::vector<pelmoMsg*>& list, bool delaySmall) {
        ReliableConnection* waits = nullptr;
        const pelmoStatus status =
            endpointSend(&core, now, address(), list, delaySmall, &waits, &out);
        keep();
        return status;
    }

    // The clock goes on, and all deadlines are served at their times. Resends are shown with the
    // seconds that have passed.
    void run(double seconds) {
        const double begin = now;
        while (endpointNextDeadline(&core) <= begin + seconds) {
            now = endpointNextDeadline(&core);
            elapsed = now - begin;
            if (!endpointTick(&core, now, &out)) std::abort();
            keep();
        }
        now = begin + seconds;
        elapsed = -1;
    }

    void closeBegin(bool flush) {
        endpointCloseBegin(&core, now, flush, &out);
        keep();
    }
    void closeEnd() {
        while (endpointCloseEnd(&core, now, &out))
            keep();
        keep();
    }

    // All that was done since the last call.
    std::string done() {
        std::string text = std::exchange(sent, "");
        const ConnectionState is = state();
        if (is != stateShown) add(text, "; ", nameOf(is));
        stateShown = is;
        if (received != 0) add(text, "; ", std::to_string(std::exchange(received, 0)) + " taken");
        if (!lost.empty()) add(text, "; ", std::exchange(lost, ""));
        return text;
    }

    [[nodiscard]] ConnectionState state() const {
        const ReliableConnection* const connection = connectionFind(&core, address());
        return connection != nullptr ? connection->state : kClosed;
    }
    [[nodiscard]] PeerAddress address() const { return {0x0100007f, port}; }
    [[nodiscard]] uint32_t peerId() const { return kPeerId + port + life * 0x10000; }

    static const char* nameOf(ConnectionState state) {
        constexpr const char* kNames[] = {"CLOSED",      "LISTEN",     "SYN_SENT",   "SYN_RECEIVED",
                                          "ESTABLISHED", "FIN_WAIT_1", "FIN_WAIT_2", "CLOSING",
                                          "CLOSE_WAIT",  "LAST_ACK",   "TIME_WAIT"};
        return kNames[state];
    }

    EndpointCore core = {};
    pelmoMsg* message = nullptr;
    double now = kWireBegin;
    uint16_t port = 1;  // of the peer that sends and is sent to
    uint32_t life = 0;  // how often it has started again

    std::map<uint16_t, uint32_t> coreIds;
    std::string sent, lost;
    uint32_t notices = 0;

  private:
    static void add(std::string& text, const char* separator, const std::string& more) {
        text += (text.empty() ? "" : separator) + more;
    }

    static void onSend(void* closure, const PeerAddress&, const OutDatagram& datagram) {
        auto* const self = static_cast<CoreWire*>(closure);
        std::vector<uint8_t> bytes(datagram.head.begin(), datagram.head.end());
        bytes.insert(bytes.end(), datagram.payload.begin(), datagram.payload.end());
        Packet packet;
        if (!packetRead(bytes, &packet)) std::abort();
        const PacketHeader& header = packet.header;
        const bool isReset = (header.flags & kFlagRst) != 0;
        if (!isReset) self->coreIds[self->port] = header.sourceId;
        std::ostringstream text;
        text << ((header.flags & kFlagSyn) != 0   ? "SYN"
                 : (header.flags & kFlagFin) != 0 ? "FIN"
                 : isReset                        ? "RST"
                 : packet.payload.empty()         ? "ACK"
                                                  : "DATA")
             << ((header.flags & kFlagCloseNotice) != 0 ? "! " : " ") << header.seq;
        if (!isReset) text << '/' << header.ack;
        if (self->elapsed >= 0) text << " at " << self->elapsed;
        add(self->sent, ", ", text.str());
    }

    void keep() {
        for (uint32_t i = 0; out.messages != nullptr && i < out.messages->count; ++i, ++received)
            msgRelease(static_cast<pelmoMsg*>(out.messages->items[i]));
        dpaDestroy(out.messages);
        for (const LossReport& loss : std::span(out.losses, out.lossCount))
            add(lost, ", ", (loss.inbound ? "in lost " : "out lost ") + std::to_string(loss.bytes));
        notices |= out.notices;
        out = {};
    }

    EndpointOutput out = {};
    uint32_t lastDrawn = 0;
    double elapsed = -1;
    uint32_t received = 0;
    ConnectionState stateShown = kClosed;
};

// What this end does, or a packet of the peer; more of them after ", ".
void act(CoreWire& wire, const std::string& steps) {
    const size_t comma = steps.find(", ");
    const std::string step = steps.substr(0, comma);
    std::istringstream words(step);
    std::string what;
    words >> what;
    if (what == "send" || what == "delay") {  // messages of those sizes
        std::vector<HeldMessage> held;
        std::vector<pelmoMsg*> messages;
        for (uint32_t size; words >> size;)
            messages.push_back(held.emplace_back(netMessage(size, 1)).get());
        if (messages.empty()) messages = {wire.message};
        EXPECT_EQ(wire.sendAll(messages, what == "delay"), kStatusSuccess);
    } else if (what == "run") {
        double seconds = 0;
        words >> seconds;
        wire.run(seconds);
    } else if (what == "close") {
        wire.closeBegin(true);
    } else if (what == "end") {
        EXPECT_TRUE(endpointIsFlushed(&wire.core));
        wire.closeEnd();
    } else if (what == "port") {  // of another peer
        words >> wire.port;
    } else if (what == "room") {  // for messages that aren't whole, of all peers
        words >> wire.core.share.most;
    } else if (what == "jump") {  // what is held as 3 would be in the place of 35
        ReliableConnection* const connection = connectionFind(&wire.core, wire.address());
        connection->rcvNxt = 34;
        connection->rcvEdge = 34 + kReceiveWindow;
    } else if (what == "FRAG") {  // of a message: number, its size, the first number, offset
        uint64_t seq = 0;
        FragmentOption option = {};
        words >> seq >> option.totalSize >> option.firstSeq >> option.offset;
        wire.takeRaw({wire.peerId(), wire.coreIds[1], seq, 2, 0, 32},
                     option.totalSize != 0 ? &option : nullptr,
                     std::vector<uint8_t>(kFragmentPayloadBytes));
    } else {
        wire.take(step);
    }
    if (comma != std::string::npos) act(wire, steps.substr(comma + 2));
}

// After " > " what the core does.
void expectStep(CoreWire& wire, const std::string& step) {
    const size_t end = std::min(step.find(" > "), step.size());
    act(wire, step.substr(0, end));
    EXPECT_EQ(wire.done(), step.substr(std::min(end + 3, step.size()))) << step;
}

const std::string kPeerOpens = "SYN 1/0, ACK 1/2 > SYN 1/2; ESTABLISHED";
const std::string kOpens = "send, SYN 1/2, ACK 1/3 > SYN 1/0, DATA 2/2; ESTABLISHED";

TEST(EndpointCore, GoesThroughConversations) {
    const struct {
        const char* name;
        std::vector<std::string> steps;
    } stories[] = {
        {"both open, and the peer's SYN-ACK comes late",
         {"send > SYN 1/0; SYN_SENT", "SYN 1/0 > SYN 2/2; SYN_RECEIVED",
          "DATA 4/2 > DATA 3/2; ESTABLISHED", "DATA 3/2 > ACK 3/2", "SYN 2/2 > ACK 3/5; 2 taken",
          "SYN 2/2 > ACK 3/5"}},
        {"both open, and our SYN-ACK is lost",
         {"send > SYN 1/0; SYN_SENT", "SYN 1/0 > SYN 2/2; SYN_RECEIVED", "run 1 > SYN 2/2 at 1",
          "DATA 2/2 > DATA 3/3; ESTABLISHED; 1 taken", "run 1 > SYN 2/3 at 1", "ACK 2/4",
          "run 90"}},
        {"packets for no connection", {"DATA 5/9 > RST 9", "RST 5"}},
        {"SYNs that make no sense",
         {"SYN 18446744073709551615/0", "SYN 18446744073709551583/0", "SYN+RST 1/0 s1",
          "SYN 1/0 s2415919103",  // without an id
          "SYN 1/5"}},
        {"a window of nothing",
         {"send > SYN 1/0; SYN_SENT", "SYN 1/2 w0 > DATA 2/2; ESTABLISHED", "send",
          "ACK 1/3 w0 > DATA 3/2"}},
        {"a message of no bytes ends its packet", {kPeerOpens, "FRAG 2 0 0 0 > ACK 1/3"}},
        {"a reset with a message under way",
         {kPeerOpens, "send > DATA 2/2", "send", "ACK 1/3 > DATA 3/2", "RST 2 > SYN 2/0; SYN_SENT",
          "run 1 > SYN 2/0 at 1", "SYN 40/3 > DATA 3/41; ESTABLISHED"}},
        {"a reset with half a message",
         {kPeerOpens, "FRAG 2 2000 2 0 > ACK 1/3", "RST 3 > CLOSED; in lost 1412"}},
        {"a fragment that isn't in its place",
         {kPeerOpens, "FRAG 2 4236 2 0 > ACK 1/3", "FRAG 3 4236 2 2824 > ACK 1/4; in lost 4236",
          "FRAG 4 4236 2 2824 > ACK 1/5", "DATA 5/2 > ACK 1/6; 1 taken"}},
        {"a message beyond what one peer may have",
         {kPeerOpens, "FRAG 2 67174401 2 0 > ACK 1/3; in lost 67174401"}},
        {"a message beyond what is left of all peers'",
         {"room 2000", kPeerOpens, "FRAG 2 4236 2 0 > ACK 1/3",
          "FRAG 3 4236 2 1412 > ACK 1/4; in lost 4236"}},
        {"a fragment's number taken by another packet",
         {kPeerOpens, "FRAG 2 4236 2 0 > ACK 1/3", "DATA 3/2 > ACK 1/4; 1 taken; in lost 4236",
          "FRAG 4 4236 2 2824 > ACK 1/5"}},
        {"the first fragment of a message that was given up",
         {kPeerOpens, "FRAG 4 4236 2 2824 > ACK 1/2", "DATA 3/2 > ACK 1/2",
          "FRAG 2 4236 2 0 > ACK 1/5; 1 taken; in lost 4236", "RST 5 > CLOSED"}},
        {"a message given up at a later fragment",
         {kPeerOpens, "FRAG 4 4236 2 1412 > ACK 1/2; in lost 4236", "FRAG 2 4236 2 0 > ACK 1/3",
          "FRAG 3 4236 2 1412 > ACK 1/5", "DATA 5/2 > ACK 1/6; 1 taken"}},
        {"what is held for numbers that don't come any more",
         {kPeerOpens, "DATA 3/2 > ACK 1/2", "jump", "DATA 34/2 > ACK 1/35; 1 taken"}},
        {"a send while we close, and the peer goes on",
         {kPeerOpens, "run 600 > FIN 2/2 at 600; FIN_WAIT_1", "DATA 2/2 > ACK 2/3; 1 taken", "send",
          "ACK 2/3 > FIN_WAIT_2", "run 1 > ACK 2/3 at 1", "DATA 3/3 > ACK 2/4; 1 taken",
          "FIN 4/3 > ACK 2/5, SYN 1/0; SYN_SENT", "SYN 1/2 > DATA 2/2; ESTABLISHED"}},
        {"a FIN before what the peer sent earlier, while we close",
         {kPeerOpens, "run 600 > FIN 2/2 at 600; FIN_WAIT_1", "FIN 4/3 > FIN_WAIT_2",
          "DATA 3/3 > ACK 2/2", "DATA 2/3 > ACK 2/5; TIME_WAIT; 2 taken"}},
        {"a flush, and no more is taken",
         {kOpens, "send > DATA 3/2", "delay", "close > DATA! 4/2", "DATA 2/4",
          "run 1 > DATA! 4/2 at 1", "SYN 1/0", "ACK 1/5 > FIN! 5/2; LAST_ACK", "end > CLOSED"}},
        {"a flush, and the peer is silent",
         {kOpens, "send > DATA 3/2", "close",
          "run 20 > DATA! 3/2 at 1, DATA! 3/2 at 3, DATA! 3/2 at 7",
          "end > RST 4; CLOSED; out lost 8"}},
        {"what is delayed leaves on a tick",
         {kOpens, "run 0.15", "delay", "run 0.05 > DATA 3/2 at 0.05"}},
        {"the linger",
         {kPeerOpens, "run 600 > FIN 2/2 at 600; FIN_WAIT_1", "FIN 2/3 > ACK 2/3; TIME_WAIT",
          "run 0.49", "run 0.01 > CLOSED"}},
        {"a deadline that becomes the next one",
         {"send > SYN 1/0; SYN_SENT", "run 3 > SYN 1/0 at 1, SYN 1/0 at 3",
          "port 2, SYN 1/0, ACK 1/2 > SYN 1/2; ESTABLISHED", "send > DATA 2/2",
          "run 1 > DATA 2/2 at 1"}},
        {"a packet within the last 300 seconds",
         {kPeerOpens, "run 299", "DATA 2/2 > ACK 1/3; 1 taken", "run 300",
          "run 1 > FIN 2/3 at 1; FIN_WAIT_1"}},
        {"the fourth acknowledgement of a number",
         {kOpens, "send > DATA 3/2", "send > DATA 4/2", "ACK 1/3", "ACK 1/3", "ACK 1/3",
          "ACK 1/3 > DATA 3/2"}},
    };
    for (const auto& [name, steps] : stories) {
        SCOPED_TRACE(name);
        CoreWire wire;
        for (const std::string& step : steps)
            expectStep(wire, step);
    }
}

// "700 1412@0 21@1412 | 5": the bytes of each packet, and where in its message a fragment begins;
// packets after the bar are delayed.
std::string shapeOf(const SendBuffer& buffer) {
    std::string text;
    for (uint32_t i = 0; i < buffer.packets->count; ++i) {
        const auto& packet = *static_cast<const OutPacket*>(
            buffer.packets->slots[EntryRing_Slot(buffer.packets, i)]);
        if (i == buffer.packets->count - buffer.delayed) text += "| ";
        text += std::to_string(packet.length);
        if (packet.isFragment) text += '@' + std::to_string(packet.fragment.offset);
        if (i + 1 != buffer.packets->count) text += ' ';
    }
    return text;
}

TEST(EndpointCore, PacksAsManyMessagesAsAPacketTakes) {
    const std::pair<std::string, std::string> rows[] = {
        {"send 1432", "1432"},
        {"send 1433", "1412@0 21@1412"},
        {"send 2824, send 12", "1412@0 1412@1412 12"},
        {"send 700 732 12", "1432 12"},
        {"send 700 733 12", "700 745"},
        {"send 12 1433 12", "12 1412@0 21@1412 12"},
        {"send 100, send 100 1232 100, send 1332", "1432 1432"},
        {"delay 1074", "1074"},
        {"delay 600, delay 900", "600 | 900"},
        {"delay 600 900, delay 12", "| 600 912"},
        {"delay 1433 600", "1412@0 21@1412 | 600"},
        {"send 600, delay 100", "600 | 100"},
        {"delay 600, send 100", "700"},
    };
    for (const auto& [sends, shape] : rows) {
        CoreWire wire;
        act(wire, "send, SYN 1/2 w0, " + sends);  // a window of nothing: what follows waits
        const ReliableConnection* const connection = connectionFind(&wire.core, wire.address());
        EXPECT_EQ(shapeOf(connection->send), "8 " + shape) << sends;
    }
}

TEST(EndpointCore, NeverWritesIntoTheCallersBuffer) {
    CoreWire wire;
    Buffer* const large = bufferCreate(kMostBlockBytes);
    std::memset(large->data, 'x', large->size);
    netWriteMessage(large->data, 300, 1);
    pelmoMsg* message = nullptr;
    ASSERT_EQ(msgCreateOverBuffer(&message, large, 0), kStatusSuccess);
    bufferRelease(large);
    for (const bool delays : {false, true})
        EXPECT_EQ(wire.sendAll({message}, delays), kStatusSuccess);
    EXPECT_EQ(wire.send(), kStatusSuccess);
    EXPECT_EQ(std::string(large->data + 300, large->data + large->size),
              std::string(large->size - 300, 'x'));
    msgRelease(message);
}

TEST(SendWindow, GrowsToTheThresholdAndThenSlowly) {
    SendWindow window;
    windowInit(&window, 32);
    window.sndNxt = 2;  // the SYN
    windowOpened(&window, 2, 30);
    const struct {
        uint64_t sndNxt, ack, sndLimit, cwnd, ssthresh;
    } steps[] = {
        {4, 5, 4, 2, kNoThreshold},  // not sent yet
        {4, 3, 7, 3, kNoThreshold},  {7, 3, 11, 4, kNoThreshold},
        {7, 3, 12, 5, kNoThreshold}, {7, 3, 12, 5, 2},  // sent again; half of what was in flight
        {8, 8, 10, 2, kNoThreshold}, {10, 9, 13, 3, kNoThreshold},
    };
    for (const auto& step : steps) {
        window.sndNxt = step.sndNxt;
        (void)windowAcknowledge(&window, step.ack);
        EXPECT_TRUE(window.sndLimit == step.sndLimit && window.cwnd == step.cwnd &&
                    window.ssthresh == step.ssthresh)
            << &step - steps << ": " << window.sndLimit << " " << window.cwnd;
    }
    window.ssthresh = 3;
    for (const uint64_t cwnd : {3, 3, 3, 4}) {
        (void)windowAcknowledge(&window, ++window.sndNxt);
        EXPECT_EQ(window.cwnd, cwnd);
    }
}

TEST(EndpointCore, ReportsEachPeersLossAtItsClose) {
    CoreWire wire;
    for (wire.port = 1; wire.port <= kMostLosses + 2; ++wire.port)
        (void)wire.sendAll(std::vector<pelmoMsg*>(wire.port, wire.message), false);
    wire.closeBegin(false);
    wire.closeEnd();
    EXPECT_EQ(wire.lost,
              "out lost 48, out lost 40, out lost 32, out lost 24, out lost 16, out lost 8");
}

TEST(EndpointCore, DropsTheOldestHalfOpen) {
    CoreWire wire;
    wire.core.mostHalfOpen = 3;
    for (wire.port = 1; wire.port <= 6; ++wire.port) {
        EXPECT_EQ(wire.notices, 0u);
        wire.take("SYN 1/0");
        if (wire.port == 1) wire.take("ACK 1/2");  // confirmed
        if (wire.port == 2) (void)wire.send();     // wanted by this side, too
    }
    EXPECT_EQ(wire.notices, kNoticeHalfOpen);
    EXPECT_EQ(wire.lost, "");
    for (wire.port = 1; wire.port <= 6; ++wire.port)
        EXPECT_EQ(wire.state() == kClosed, wire.port == 3) << wire.port;
    EXPECT_EQ(wire.core.halfOpen, 3u);
    wire.run(100);
    EXPECT_EQ(wire.core.halfOpen, 0u);
}

// Brings the connection there. Until then the peer sent SYN 1, the core SYN 1; numbers from 2 on
// are free. In kCloseWait one message is under way.
void reach(CoreWire& wire, ConnectionState state) {
    const std::map<ConnectionState, const char*> paths = {
        {kSynSent, "send"},
        {kSynReceived, "SYN 1/0"},
        {kEstablished, "SYN 1/0, ACK 1/2"},
        {kFinWait1, "SYN 1/0, ACK 1/2, run 600"},
        {kFinWait2, "SYN 1/0, ACK 1/2, run 600, ACK 1/3"},
        {kClosing, "SYN 1/0, ACK 1/2, run 600, FIN 2/2"},
        {kCloseWait, "SYN 1/0, ACK 1/2, send, FIN 2/2"},
        {kLastAck, "SYN 1/0, ACK 1/2, FIN 2/2"},
        {kTimeWait, "SYN 1/0, ACK 1/2, run 600, ACK 1/3, FIN 2/3"},
    };
    act(wire, paths.at(state));
    ASSERT_EQ(wire.state(), state);
    (void)wire.done();
}

TEST(ReliableStates, EachStepDoesWhatItSays) {
    const struct {
        ConnectionState state;
        std::vector<std::string> steps;  // each from that state
    } rows[] = {
        {kSynSent,
         {"ACK 1/2", "SYN 1/2 > DATA 2/2; ESTABLISHED", "SYN 1/3 > RST 3",
          "SYN 1/0 > SYN 2/2; SYN_RECEIVED", "send"}},
        {kSynReceived,
         {"ACK 1/2 > ESTABLISHED", "DATA 2/2 > ACK 1/3; ESTABLISHED; 1 taken", "DATA 2/1 > RST 1",
          "ACK 1/3 > RST 3", "FIN 2/2 > ACK 1/3, FIN 2/3; LAST_ACK", "SYN 1/0 > SYN 1/2",
          "RST 2 > CLOSED", "send"}},
        {kEstablished,
         {"DATA 2/2 x2 > ACK 1/3; 2 taken", "DATA 3/2 > ACK 1/2", "DATA 33/2 > ACK 1/2",
          "DATA 34/2 > ACK 1/2", "DATA 1/2 > ACK 1/2", "ACK 1/3", "send > DATA 2/2"}},
        {kEstablished,
         {"FIN 2/2 > ACK 1/3, FIN 2/3; LAST_ACK",
          "FIN 2/2 x1 > ACK 1/3, FIN 2/3; LAST_ACK; 1 taken", "FIN 3/2",
          "ACK! 1/2 > FIN 2/2; FIN_WAIT_2", "DATA! 2/2 > FIN 2/3, ACK 2/3; FIN_WAIT_2; 1 taken",
          "FIN! 2/2 > FIN 2/3, ACK 2/3; TIME_WAIT"}},
        {kEstablished,
         {"SYN 1/0 > ACK 1/2", "SYN 2/2 > ACK 1/3", "RST 2 > CLOSED", "RST 33 > CLOSED", "RST 34",
          "RST 1"}},
        // Outsiders, who don't know the id of one end; a reset has no source.
        {kEstablished,
         {"DATA 2/2 s1 > RST 2", "DATA 2/2 d1 > RST 2", "FIN 2/2 s1 > RST 2", "FIN 2/2 d1 > RST 2",
          "ACK! 1/2 s1 > RST 2", "ACK! 1/2 d1 > RST 2", "RST 2 d1", "SYN 2/2 d1", "SYN 2/2 s1 d1"}},
        {kFinWait1,
         {"ACK 1/3 > FIN_WAIT_2", "DATA 2/2 > ACK 2/3; 1 taken", "FIN 2/2 > ACK 2/3; CLOSING",
          "FIN 2/3 > ACK 2/3; TIME_WAIT", "FIN 3/3 > FIN_WAIT_2", "ACK! 1/2 > FIN_WAIT_2",
          "send > SYN 1/0; SYN_SENT"}},
        {kFinWait2,
         {"DATA 2/3 > ACK 2/3; 1 taken", "FIN 2/3 > ACK 2/3; TIME_WAIT", "FIN 3/3",
          "send > SYN 1/0; SYN_SENT"}},
        {kClosing,
         {"ACK 2/3 > TIME_WAIT", "DATA 3/3 > TIME_WAIT", "FIN 2/2 > ACK 2/3",
          "send > SYN 1/0; SYN_SENT"}},
        {kCloseWait,
         {"ACK 2/3 > FIN 3/3; LAST_ACK", "DATA 3/2", "FIN 2/2 > ACK 2/3",
          "ACK! 2/2 > FIN 3/3; LAST_ACK; out lost 8", "RST 3 > SYN 1/0; SYN_SENT",
          "send > DATA 3/3"}},
        {kLastAck,
         {"ACK 2/3 > CLOSED", "FIN 2/2 > ACK 2/3", "RST 3 > CLOSED", "send > SYN 1/0; SYN_SENT"}},
        {kTimeWait, {"FIN 2/3 > ACK 2/3", "DATA 3/3", "send > SYN 1/0; SYN_SENT"}},
    };
    for (const auto& [state, steps] : rows) {
        for (const std::string& step : steps) {
            SCOPED_TRACE(CoreWire::nameOf(state));
            CoreWire wire;
            reach(wire, state);
            expectStep(wire, step);
        }
    }
}

// A peer that starts again, with another id: what its SYN does, and what opens the connection.
TEST(ReliableStates, EachGoesOnWithAPeerThatStartsAgain) {
    const struct {
        ConnectionState state;
        const char *done, *opens;
    } rows[] = {
        {kSynSent, "SYN 2/8; SYN_RECEIVED", "DATA 3/8; ESTABLISHED"},
        {kSynReceived, "SYN 1/8", "ESTABLISHED"},
        {kEstablished, "ACK 1/2", ""},
        {kFinWait1, "ACK 2/2", ""},
        {kFinWait2, "ACK 2/2", ""},
        {kClosing, "SYN 1/8; SYN_RECEIVED", "ESTABLISHED"},
        {kCloseWait, "SYN 1/8; SYN_RECEIVED", "DATA 2/8; ESTABLISHED"},
        {kLastAck, "SYN 1/8; SYN_RECEIVED", "ESTABLISHED"},
        {kTimeWait, "SYN 1/8; SYN_RECEIVED", "ESTABLISHED"},
    };
    for (const auto& [state, done, opens] : rows) {
        SCOPED_TRACE(CoreWire::nameOf(state));
        CoreWire wire;
        reach(wire, state);
        const uint32_t formerId = wire.coreIds[wire.port];
        ++wire.life;
        wire.take("SYN 7/0");
        EXPECT_EQ(wire.done(), done);
        EXPECT_EQ(wire.coreIds[wire.port] != formerId, *opens != 0 && state != kSynSent);
        if (*opens != 0) wire.take("ACK 7/2");
        EXPECT_EQ(wire.done(), opens);
    }
}

// Packets 20 to 31 are in flight as the peer begins to miss some of them: each acknowledgement ends
// at the next one that it misses.
TEST(ReliableStates, SendEachLossOfAWindowAgainAtOnce) {
    constexpr uint64_t kTick = 0;  // the timer sends again, a second after the last new packet
    const struct {
        const char* what;
        std::vector<uint64_t> acks;
        const char* done;
    } cases[] = {
        {"one loss", {20, 20, 20, 20, 32}, "DATA 20/2"},
        {"three losses", {20, 20, 20, 20, 24, 28, 32}, "DATA 20/2, DATA 24/2, DATA 28/2"},
        {"the last packet", {20, 20, 20, 20, 31, 32}, "DATA 20/2, DATA 31/2"},
        {"lost again", {20, 20, 20, 20, 24, 24, 24, 24, 32}, "DATA 20/2, DATA 24/2, DATA 24/2"},
        {"then the timer", {20, 20, 20, 20, kTick, 24, 32}, "DATA 20/2, DATA 20/2 at 1, DATA 24/2"},
        {"the timer alone", {kTick, 24, 32}, "DATA 20/2 at 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CoreWire wire;
        reach(wire, kEstablished);
        for (uint64_t number = 2; number < 20; ++number) {
            (void)wire.send();
            wire.take("ACK 1/" + std::to_string(number + 1));
        }
        for (uint64_t number = 20; number < 32; ++number)
            (void)wire.send();
        (void)wire.done();
        for (const uint64_t ack : c.acks) {
            if (ack == kTick) wire.run(1);
            if (ack != kTick) wire.take("ACK 1/" + std::to_string(ack));
        }
        EXPECT_EQ(wire.done(), c.done);
        (void)wire.send();  // recovery is over
        EXPECT_EQ(connectionFind(&wire.core, wire.address())->window.recoveryEnd, 0u);
        wire.take("ACK 1/33");
        EXPECT_EQ(wire.done(), "DATA 32/2");
    }
}

}  // namespace

// The states of a connection: one row for what an accepted packet does in a state. What is true of
// a state, whatever comes, is in its traits. The actions are performed by connection_packets.cc.
//
// Threads: pure functions over constant tables.

#pragma once

#include <cstdint>

// The numbers are fixed.
enum ConnectionState : uint8_t {
    kClosed,
    kListen,       // made passively, before its SYN-ACK went out
    kSynSent,      // this side sent SYN
    kSynReceived,  // a SYN came, SYN-ACK is sent
    kEstablished,
    kFinWait1,   // this side sent FIN
    kFinWait2,   // the FIN is acknowledged, or the peer's endpoint is closing
    kClosing,    // both sent FIN, ours isn't acknowledged
    kCloseWait,  // the peer sent FIN; this side may still send
    kLastAck,    // this side's FIN went out after the peer's
    kTimeWait,   // lingers, so that a repeated FIN is answered
    kConnectionStates
};

// What is known of a packet.
enum StateFact : uint8_t {
    kAckOutside = 1,  // `ack` is not between `sndUna` and `sndNxt`
    kAllAcked = 2,    // `ack` is `sndNxt`: also our FIN is acknowledged
    kFinNow = 4,      // all that the peer has sent is here, and its FIN
    kNotice = 8,      // CLOSE_NOTICE: the peer takes no more data
};

enum StateAction : uint8_t {
    kDoReset = 1,    // answer with a reset; the packet is done with
    kDoAckStep = 2,  // take the acknowledgement
    kDoDiscard = 4,  // what waits or isn't acknowledged is lost
    kDoFin = 8,      // send FIN
    kDoAck = 16,     // the packet is to be acknowledged
    kDoTearDown = 32,
    kDoLookUpAgain = 64,  // in the next state, with kNotice cleared
};

struct StateRow {
    ConnectionState state;
    uint8_t facts;    // of StateFact: all of them are true
    uint8_t actions;  // of StateAction, in the order of their values
    ConnectionState next;
};

// The first row that fits.
[[nodiscard]] const StateRow& stateRow(ConnectionState state, uint8_t facts);

enum StateTrait : uint8_t {
    kSynUnderWay = 1,  // a SYN or SYN-ACK isn't acknowledged
    kFinUnderWay = 2,  // a FIN isn't
    kSendsData = 4,
    kTakesData = 8,
    kSynIsRepeat = 16,    // a SYN is answered by ACK, whichever incarnation sent it
    kSendReopens = 32,    // a send reopens the connection
    kResetsAtClose = 64,  // the endpoint's close resets the peer
};

[[nodiscard]] uint8_t stateTraits(ConnectionState state);

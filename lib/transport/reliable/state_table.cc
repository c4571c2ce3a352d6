#include "lib/transport/reliable/state_table.h"

#include <iterator>

namespace {

constexpr uint8_t kDoAckAndDiscard = kDoAckStep | kDoDiscard;

// Columns: state; facts that have to be true; actions; next state.
constexpr StateRow kStateRows[] = {
    {kClosed, 0, 0, kClosed},
    {kListen, 0, 0, kListen},
    {kSynSent, 0, 0, kSynSent},

    {kSynReceived, kAckOutside, kDoReset, kSynReceived},
    {kSynReceived, 0, kDoLookUpAgain, kEstablished},

    {kEstablished, kNotice, kDoAckAndDiscard | kDoFin | kDoLookUpAgain, kFinWait2},
    {kEstablished, kFinNow, kDoAckStep | kDoAck, kCloseWait},
    {kEstablished, 0, kDoAckStep, kEstablished},

    // The FIN has gone out already. Its acknowledgement isn't awaited: what was sent before
    // it may be lost.
    {kFinWait1, kNotice, kDoAckAndDiscard | kDoLookUpAgain, kFinWait2},
    {kFinWait1, kAllAcked | kFinNow, kDoAckStep | kDoAck, kTimeWait},
    {kFinWait1, kAllAcked, kDoAckStep, kFinWait2},
    {kFinWait1, kFinNow, kDoAckStep | kDoAck, kClosing},
    {kFinWait1, 0, kDoAckStep, kFinWait1},

    {kFinWait2, kFinNow, kDoAckStep | kDoAck, kTimeWait},
    {kFinWait2, 0, kDoAckStep, kFinWait2},

    {kClosing, kAllAcked, kDoAckStep, kTimeWait},
    {kClosing, 0, kDoAckStep, kClosing},

    {kCloseWait, kNotice, kDoAckAndDiscard | kDoFin, kLastAck},
    {kCloseWait, 0, kDoAckStep, kCloseWait},

    {kLastAck, kAllAcked, kDoAckStep | kDoTearDown, kLastAck},
    {kLastAck, 0, kDoAckStep, kLastAck},

    {kTimeWait, 0, 0, kTimeWait},
};

constexpr uint8_t kTraits[] = {
    /* kClosed      */ 0,
    /* kListen      */ kSendReopens,
    /* kSynSent     */ kSynUnderWay,
    /* kSynReceived */ kSynUnderWay | kResetsAtClose,
    /* kEstablished */ kSendsData | kTakesData | kSynIsRepeat | kResetsAtClose,
    /* kFinWait1    */ kFinUnderWay | kTakesData | kSynIsRepeat | kSendReopens | kResetsAtClose,
    /* kFinWait2    */ kTakesData | kSynIsRepeat | kSendReopens | kResetsAtClose,
    /* kClosing     */ kFinUnderWay | kSendReopens | kResetsAtClose,
    /* kCloseWait   */ kSendsData | kResetsAtClose,
    /* kLastAck     */ kFinUnderWay | kSendReopens,
    /* kTimeWait    */ kSendReopens,
};
static_assert(std::size(kTraits) == kConnectionStates);

}  // namespace

const StateRow& stateRow(ConnectionState state, uint8_t facts) {
    const StateRow* row = kStateRows;
    while (row->state != state || (facts & row->facts) != row->facts)
        ++row;
    return *row;
}

uint8_t stateTraits(ConnectionState state) {
    return kTraits[state];
}

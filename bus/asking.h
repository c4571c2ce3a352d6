// One request and its answer, on an inbox of its own, so that a late answer to an earlier request
// is ignored. Unlike pelmoTransport_SendRequest it ends at a signal.

#pragma once

#include "bus/common.h"
#include "bus/pump.h"
#include "bus/sender.h"

// Sets the message's reply subject. kStatusTimeout without an answer in time, kStatusInterrupted
// after a signal, kStatusIoFailed where the output has failed, and what sending answers.
[[nodiscard]] pelmoStatus askFor(
    Pump& pump, Sender& sender, pelmoMsg* request, int64_t until, OwnedMessage& answer);

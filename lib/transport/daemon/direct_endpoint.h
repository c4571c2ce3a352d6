// The direct road of a network transport: a reliable endpoint whose messages go to the transport's
// listeners, and whose losses become advisories.
//
//     _PM.ERROR.SYSTEM.DATALOSS.INBOUND.PTP     what a peer sent can't be delivered
//     _PM.ERROR.SYSTEM.DATALOSS.OUTBOUND.PTP    what was sent to it is lost
//
// with the peer's address in the field "host" and, if it is known, "bytes_dropped".
//
// Callbacks know the transport by its id alone: before it has one and after it is gone, there is no
// listener.
//
// Threads: as lib/transport/reliable/reliable_endpoint.h; callbacks take the transport's object
// lock.

#pragma once

#include "lib/base/status.h"
#include "lib/transport/transport_internal.h"

// Fills endpointOps. Called before the first open.
void directEndpointAttach();

// Makes the transport's endpoint at this address and port, 0 for any, and notes there which port it
// got. The object lock isn't held. The transport owns the endpoint, even if its creation fails
// afterwards. The statuses of ReliableEndpoint_Open.
[[nodiscard]] pelmoStatus directEndpointOpen(Transport* transport, DirectPeer* self);

// The run: plan, fill, damage, seal, cut and hand on, packet by packet.

#pragma once

#include "tools/pelmogen/options.h"
#include "tools/pelmogen/sink.h"
#include "tools/pelmogen/totals.h"

// False with `errno` set where the sink failed; `totals` is of no use then.
[[nodiscard]] bool generate(const GeneratorOptions& options,
                            const PacketSink& sink,
                            SentTotals& totals);

// The run: each packet is planned, filled, damaged, sealed, cut and passed to the sink.

#pragma once

#include "tools/pelmogen/options.h"
#include "tools/pelmogen/sink.h"
#include "tools/pelmogen/totals.h"

// False with `errno` set where the sink failed; `totals` is undefined then.
[[nodiscard]] bool generate(const GeneratorOptions& options,
                            const PacketSink& sink,
                            SentTotals& totals);

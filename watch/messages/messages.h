// The form "messages": what was in the messages of the bus's multicast data packets, a line each,
// as JSON or as the library's own text.

#pragma once

#include "watch/core/form.h"

extern const Form kMessagesForm;

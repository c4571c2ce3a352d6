// The form "serve": the bus over HTTP, as metrics for Prometheus, as JSON, and as a page.
//
// It goes on after the end of a saved capture, until it is stopped.

#pragma once

#include "watch/core/form.h"

extern const Form kServeForm;

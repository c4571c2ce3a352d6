// The form "compare": what came, went, grew and shrank between two captures, as lines of JSON
// (docs/pelmowatch-compare.schema.json).

#pragma once

#include "watch/core/form.h"

extern const Form kCompareForm;

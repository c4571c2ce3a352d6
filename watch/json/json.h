// The form "json": each Snapshot as a line of JSON on the standard output, or each row of it.
//
// Lines are whole whatever ends the run. A reader that goes away ends it too, without a word.

#pragma once

#include "watch/core/form.h"

extern const Form kJsonForm;

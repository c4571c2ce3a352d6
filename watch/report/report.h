// The form "report": a saved capture as one page that works from disk, without a network.
//
// The page is written beside its place and moved there when it is whole: a run that is cut off
// leaves the file that was there before.

#pragma once

#include "watch/core/form.h"

extern const Form kReportForm;

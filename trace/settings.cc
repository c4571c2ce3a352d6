#include "trace/settings.h"

TraceSettings traceSettings;

#include "trace/runtime_ops.h"

RuntimeOps runtimeOps;

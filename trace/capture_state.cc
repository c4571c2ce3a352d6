#include "trace/capture_state.h"

CaptureState captureState;

#include "trace/capture/capture_state.h"

CaptureState captureState;

// A run that saves its frames, without a capture: the state, the frame handler, and a file in a
// folder of its own. At the end all is as at the start of the process.

#pragma once

#include <gtest/gtest.h>

#include "tests/support/capture_reset.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"
#include "trace/settings.h"

struct SavingRun : testing::Test {
    SavingRun() { captureState.captureHandle = pcap_open_dead(DLT_EN10MB, 65535); }
    ~SavingRun() override {
        resetCapture();
        traceSettings = {};
    }

    // By a name in the folder, or an absolute path.
    void open(const char* name) {
        path = name[0] == '/' ? name : folder.path(name);
        traceSettings.writeFile = path.c_str();
        ASSERT_TRUE(captureFileOpen(captureState.captureHandle, path.c_str()));
        captureState.savingFrames = true;
    }

    TraceRun run;
    const Folder folder;
    std::string path;
};

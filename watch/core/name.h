// The program's name: in its log lines and in what it says of its command line.

#pragma once

inline constexpr const char* kWatchName = "pelmowatch";

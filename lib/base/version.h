// The version that the library answers and that library and tool print as they start. It tells
// other programs of the bus what to expect and is fixed; the tree has a version of its own, in
// project() of CMakeLists.txt.

#pragma once

// A macro, so that texts can be made with it.
#define PELMO_TOLD_VERSION "8.5.2"

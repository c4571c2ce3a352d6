// The bus's version: the library returns it, and library and tool print it as they start. It is
// fixed, so that other programs of the bus know what to expect; the tree's own version is in
// project() of CMakeLists.txt.

#pragma once

// A macro, so that string literals can include it.
#define PELMO_BUS_VERSION "8.5.2"

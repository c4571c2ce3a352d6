// The program behind main: reads the command line, runs the command, returns the exit status.

#pragma once

[[nodiscard]] int busMain(int argc, char** argv);

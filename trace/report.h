// STUB banner: the report writer's author replaces this file's banner.
#pragma once

#include "trace/snapshot.h"

void printSnapshot(SnapHeader* snapshot);

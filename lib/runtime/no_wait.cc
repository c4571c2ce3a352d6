#include "lib/runtime/no_wait.h"

#include "lib/runtime/event_manager.h"
#include "lib/runtime/library.h"

bool threadMayWait() {
    return libraryIsOpen() && noWaitMarks == 0 && !EventManager_IsOwnThread();
}

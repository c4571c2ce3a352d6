#include "lib/base/status.h"

const char* pelmoStatus_GetText(pelmoStatus status) {
    switch (status) {
#define PELMO_STATUS_CASE(name, number, text) \
    case name:                                \
        return text;
        PELMO_STATUS_TABLE(PELMO_STATUS_CASE)
#undef PELMO_STATUS_CASE
        default:
            return "unrecognized status";
    }
}

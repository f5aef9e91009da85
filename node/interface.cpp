// The edge of libeasnode: each function checks its arguments, makes one internal call, and turns
// what it gives, or throws, into a return code.
#include "node/node.h"

const char* easnode_error_text(int code) {
    switch (code) {
        case EASNODE_OK:
            return "no error";
        case EASNODE_BAD_ARGUMENT:
            return "an argument is null, out of range, or a record too small";
        case EASNODE_NO_MEMORY:
            return "out of memory";
        case EASNODE_NO_SUCH_SOURCE:
            return "a list of sources names one that does not exist";
        case EASNODE_NO_SUCH_PROCESS:
            return "the process to follow does not exist";
        default:
            return "unknown code";
    }
}

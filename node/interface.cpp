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
        case EASNODE_TOO_SMALL:
            return "there is more than the caller has room for";
        case EASNODE_NO_FREQUENCY:
            return "no cpufreq driver: no frequency can be set";
        case EASNODE_NOT_OFFERED:
            return "the frequency is not offered, or a limit forbids it";
        case EASNODE_DENIED:
            return "the kernel asks for a privilege";
        case EASNODE_NOT_TAKEN:
            return "the driver refused a setting, or did not keep it";
        case EASNODE_BAD_TEXT:
            return "the text of settings is damaged, or none";
        case EASNODE_OTHER_NODE:
            return "the settings are of another boot or another driver";
        case EASNODE_MOVED:
            return "given back, but another program had changed it meanwhile";
        case EASNODE_NOT_GIVEN_BACK:
            return "a setting could not be given back";
        case EASNODE_STOPPED:
            return "stopped by the caller's function";
        default:
            return "unknown code";
    }
}

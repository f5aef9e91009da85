/*
 * record.h - writes down what the library reads of it. Part of <eas/node.h>, whose conventions
 * hold.
 *
 * The files that this library reads on this node, for a report about a fault or for a test that
 * replays the node: those of the processors, their frequencies, counters and energy meters below
 * /proc and /sys. No serial numbers, no network addresses, no names of jobs; the node's own name
 * only when it is wanted.
 */
#ifndef EAS_NODE_RECORD_H
#define EAS_NODE_RECORD_H

#include <stddef.h>
#include <stdint.h>

#include "codes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A file of the record. This record does not grow. */
typedef struct easnode_file {
    const char* path;    /* absolute */
    const char* content; /* `length` bytes; of a link, where it leads; null after an error */
    size_t length;
    int32_t error;   /* errno of reading it; 0: it was read */
    int32_t mode;    /* its permission bits */
    int32_t is_link; /* 1: a symbolic link */
} easnode_file;

/*
 * Hands each file to `take`, in ascending order of the paths, which are all different. A file that
 * does not exist is left out; one that cannot be read comes with its errno.
 *
 *   with_host_name   not 0: /proc/sys/kernel/hostname is among the files
 *   take             called with `context` and a file, which is valid during the call. Not 0: stop.
 *                    It must not throw
 *
 * Reads all of the files: a second or so on a large node. Needs no privilege. Returns EASNODE_OK;
 * EASNODE_STOPPED when `take` ended it; EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY. Any thread may
 * call.
 */
EAS_API int easnode_record(int with_host_name, int (*take)(void* context, const easnode_file* file),
                           void* context);

#ifdef __cplusplus
}
#endif

#endif /* EAS_NODE_RECORD_H */

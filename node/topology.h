/*
 * topology.h - counts its CPUs. Part of <eas/node.h>, whose conventions hold.
 *
 * The online CPUs as /sys/devices/system/cpu shows them. CPUs may be missing in between, and there
 * may be more than 1024. Needs no privilege.
 */
#ifndef EAS_NODE_TOPOLOGY_H
#define EAS_NODE_TOPOLOGY_H

#include <stddef.h>
#include <stdint.h>

#include "codes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The node in numbers. */
typedef struct easnode_topology {
    size_t size;              /* in: sizeof(easnode_topology) */
    int32_t cpus;             /* online logical CPUs; 0: /sys lists none */
    int32_t possible_cpus;    /* those that the kernel makes room for */
    int32_t sockets;          /* distinct packages with an online CPU */
    int32_t cores;            /* distinct cores with an online CPU */
    int32_t threads_per_core; /* of the core that has most online */
    int32_t numa_nodes;       /* with an online CPU: nodes of memory alone are not counted */
    int32_t family;           /* of the first processor in /proc/cpuinfo; -1: unknown */
    int32_t model;            /* the same */
    /* Its name; "implementer 0x41, part 0xd4f" of Arm's, which have none; empty: unknown */
    char processor[EASNODE_TEXT_SIZE];
} easnode_topology;

/* An online CPU. This record does not grow. */
typedef struct easnode_cpu {
    int32_t cpu;       /* the kernel's number */
    int32_t socket;    /* 0 to sockets - 1 */
    int32_t core;      /* 0 to cores - 1, over the whole node */
    int32_t thread;    /* 0, 1, ... within the core */
    int32_t numa_node; /* the kernel's number; -1: none */
} easnode_cpu;

/*
 * Counts the CPUs, cores, sockets.
 *
 *   topology   out; unchanged after a failure
 *
 * Returns EASNODE_OK, EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY. Any thread may call.
 */
EAS_API int easnode_topology_read(easnode_topology* topology);

/*
 * Lists the online CPUs, ascending.
 *
 *   cpus       out: room for `capacity` of them; may be null when that is 0
 *   count      out: how many there are, also when there is too little room
 *
 * Returns EASNODE_OK; EASNODE_TOO_SMALL when there are more than `capacity` (the first ones are
 * given); EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY. Any thread may call.
 */
EAS_API int easnode_topology_cpus(easnode_cpu* cpus, size_t capacity, size_t* count);

#ifdef __cplusplus
}
#endif

#endif /* EAS_NODE_TOPOLOGY_H */

/*
 * EasMisc.h - the node daemon's interface of libeas (C11 and C++17).
 *
 * Runs on a compute node: counts what a job does to the processors and the memory, reads the
 * node's energy meter and sensors, and switches the effective user around such reads.
 *
 * Conventions of every function here
 *   Return value   0 on success and -1 on failure unless the function says otherwise; nothing is
 *                  printed and nothing is thrown.
 *   Counters       cumulative; a caller takes the difference of two samples itself.
 *   Ownership      records and buffers belong to the caller; no pointer is kept.
 *   Threads        hardware usage and the privileges are state of the whole process: let one
 *                  thread drive them. The sensor functions and extract_bits keep no state and may
 *                  run in any thread. A thread that is cancelled inside a call finishes the call.
 *   Memory         the memory counters belong to the node: one process of a node may sample at a
 *   counters       time. A second one that programs them sets the first one's to 0, and its
 *                  tear-down stops them.
 *   Hardware       x86-64 processors of vendor "GenuineIntel", family 6, models 26, 30, 37, 42, 44,
 *                  45, 46, 47 and 62 for gethwrusage; an energy meter behind a platform driver
 *                  (devices qpx.0 and qpx.1) for the sensors.
 */
#ifndef EAS_MISC_H
#define EAS_MISC_H

#include <stddef.h>
#include <stdint.h>
#include <sys/resource.h>
#include <sys/types.h>

#ifndef EAS_API
#if defined(__GNUC__)
#define EAS_API __attribute__((visibility("default")))
#else
#define EAS_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * One sample of hardware usage. All counts are cumulative since the counters were programmed.
 *
 * The core counters are events of the followed process and its children, or of the whole node, of
 * which the CPUs 0 to cores - 1 are counted: with hyper-threading that is half of them, while the
 * bytes of memory traffic are those of all. libeasnode (node.h) counts every CPU. They are
 * corrected for the time in which the kernel had no hardware counter free for them
 * (perf_event_open(2), "time enabled" and "time running"). What a processor model counts for an
 * event that it does not have (l2_transactions, l1d_all_ref, flops) is up to that model.
 */
typedef struct hwrusage {
    uint64_t cycles;              /* processor cycles */
    uint64_t instructions;        /* instructions retired */
    uint64_t branch_instructions; /* branches retired */
    uint64_t branch_misses;       /* branches mispredicted */
    uint64_t cache_references;    /* accesses to the last-level cache */
    uint64_t cache_misses;        /* misses of the last-level cache */
    uint64_t bus_cycles;          /* bus cycles */
    uint64_t membytes_xferred;    /* bytes between the node's memory and its caches, both ways; 0 or
                                     meaningless where they are not counted, see gethwrusage */
    uint64_t netbytes_xferred;    /* always 0 */
    uint64_t flops;               /* floating-point operations, packed ones by their elements, on
                                     models 42, 45 and 62; meaningless on the others, where the
                                     masks of the event overlap: a scalar double counts twice */
    uint64_t inlet_temperature;   /* degrees Celsius below the processors' highest allowed junction
                                     temperature, mean of the sockets; 999: no reading; huge: below
                                     0, see gethwrusage */
    uint64_t l2_transactions;     /* accesses to the L2 caches */
    uint64_t l1d_all_ref;         /* accesses to the L1 data caches */
    uint64_t tstamp;              /* wall-clock time of the core counters' reading, ns since 1970 */
} hwrusage;

/*
 * One reading of the energy meter, as its driver writes it; 0 for a sensor that cannot be read.
 * Units are those of the kernel's hwmon interface (Documentation/hwmon/sysfs-interface).
 */
typedef struct enrusage {
    unsigned long energy1_input;           /* microjoules since the meter was started */
    unsigned long energy2_input;           /* microjoules */
    unsigned long power1_average;          /* microwatts */
    unsigned long power1_average_interval; /* milliseconds */
    unsigned long power2_average;          /* microwatts */
    unsigned long power2_average_interval; /* milliseconds */
    unsigned long power3_average;          /* microwatts */
    unsigned long power4_average;          /* microwatts */
    unsigned long power5_average;          /* microwatts */
    unsigned long power6_average;          /* microwatts */
    unsigned long power7_average;          /* microwatts */
    unsigned long power_cap;               /* microwatts */
    unsigned long temp1_input;             /* thousandths of a degree Celsius */
    unsigned long temp2_input;             /* thousandths of a degree Celsius */
} enrusage;

/*
 * Samples the hardware usage of a process, or tears the counters down.
 *
 *   pid     the process to follow: its thread of that number, and what this one starts from then
 *           on; threads that run already are not counted. -1 for the whole node. Looked at only by
 *           the call that programs the counters: the first one, and the first one after a
 *           tear-down.
 *   usage   out: the sample. Null tears down what was programmed, so that a later call may follow
 *           another process.
 *
 * The counters need root: the effective user becomes the saved one (restore_priv) for the length
 * of the call and the real one (drop_priv_temp) at its end, which is not reported when it fails.
 * Each switch interrupts the other threads of the process, see drop_priv_temp. A
 * null `usage` while nothing is programmed leaves the saved user in force.
 *
 * A source that fails is not reported: without perf events the core fields and tstamp keep what
 * the caller had in them (clear the record first). Without the memory counters membytes_xferred is
 * 0, or a meaningless value where only some memory channels could be mapped. Without a temperature
 * the field is 999; a highest temperature that cannot be read (register 0x1A2) counts as 0, so that
 * the margin is too small, and one below 0 wraps to a huge unsigned value. Once a process
 * followed the whole node (pid -1) it does so for the rest of its life, and those descriptors stay
 * open.
 *
 * Needs: the "msr" kernel module (/dev/cpu/N/msr); perf_event_open(2) for the process; for models
 * 45 and 62 /dev/mem and /sys/firmware/acpi/tables/MCFG, and at most 2 sockets: the PCI buses 127
 * and 255, where the controllers are looked for, are a convention for two; at most 4 sockets, 128
 * processors and, for the whole node, 64 cores. The calling thread's affinity is changed and given
 * back.
 *
 * Returns 0, or -1 when the platform is not supported (`usage` is then untouched, and the next
 * call looks again). Not thread-safe.
 */
EAS_API int gethwrusage(pid_t pid, hwrusage* usage);

/*
 * Reads all sensors of the energy meter, each from
 * /sys/devices/platform/qpx.1/<field name>, else from qpx.0.
 *
 *   who     not looked at: the meter measures the node
 *   usage   out: all fields; 0 for a sensor that cannot be read
 *
 * Needs read access to these files. Returns 0; -1 for a null `usage`. Thread-safe.
 */
EAS_API int getenrusage(__rusage_who_t who, enrusage* usage);

/*
 * Reads only `energy1_input`; the other fields keep what they had. Else as getenrusage.
 */
EAS_API int getearusage(__rusage_who_t who, enrusage* usage);

/*
 * Whether the energy meter is present and counting: its first sensor (energy1_input), cut to an
 * int. Returns 0 when there is no meter, or a value that is not 0. Thread-safe.
 */
EAS_API int verify_qpx(void);

/*
 * Reads the text of one sensor file of the energy meter.
 *
 *   fname    name of the file below the device's directory
 *   buf      out: the text, NUL-terminated when the result is not 0; else unchanged
 *   buflen   size of buf in bytes; at most buflen - 1 are read, in one read(2)
 *
 * Device qpx.1 comes first, qpx.0 is the fall-back. Returns the bytes read; 0 when neither file can
 * be opened, when reading fails or gives nothing, or for a null name, or a null or empty buffer.
 * Thread-safe.
 */
EAS_API unsigned int sysfs_read_file(const char* fname, char* buf, size_t buflen);

/*
 * Reads one sensor by its position in enrusage (0 is energy1_input, 13 temp2_input).
 *
 * Numbers may be decimal, or hexadecimal after 0x, or octal after 0 (strtoul(3), base 0). Returns
 * the value; 0 for another position, a sensor that cannot be read, a text that is no number or a
 * number that does not fit. A negative number (a temperature) wraps to a huge one. Thread-safe.
 */
EAS_API unsigned long sysfs_get_one_value(unsigned int which);

/*
 * Bits high..low of a register value, shifted down to bit 0, as in the processor vendor's software
 * developer manual ("bits 15:8").
 *
 *   high, low   bit numbers, 63 >= high >= low >= 0
 *
 * The result is cut to 32 bits. 64 bits or more give val itself; a range without a bit (high below
 * low, low outside 0 to 63) gives 0. Thread-safe.
 */
EAS_API int extract_bits(unsigned long long val, int high, int low);

/*
 * Makes new_uid the effective user; the present effective user becomes the saved one, to which
 * restore_priv goes back. The real user stays. See setresuid(2).
 *
 * Every thread of the process is affected: the C library does it by a signal to each of them, so
 * that a system call that waits there may end with EINTR. A daemon with threads must try again
 * then, or sample in a process of its own. Needs CAP_SETUID, or new_uid to be one of the process's
 * own ids. Returns 0, or -1 with errno as the system call left it (nothing was changed). The id
 * (uid_t)-1 means "leave it" to setresuid: the effective user stays, the saved one becomes the
 * effective one all the same, and -1 is returned with errno untouched, although nothing failed.
 */
EAS_API int drop_priv_temp(uid_t new_uid);

/*
 * Makes new_uid the real, effective and saved user for good.
 *
 * Returns 0 only when all three were seen to be new_uid afterwards, else -1: treat the process as
 * still privileged then (the id (uid_t)-1 changes none). Groups are not changed. Every thread of
 * the process is affected.
 */
EAS_API int drop_priv_perm(uid_t new_uid);

/*
 * Makes the saved user the effective one, undoing drop_priv_temp.
 *
 * Returns 0 when the effective user now is the saved one (also when it was before: after
 * drop_priv_perm nothing is regained), else -1. Every thread of the process is affected.
 */
EAS_API int restore_priv(void);

#ifdef __cplusplus
}
#endif

#endif /* EAS_MISC_H */

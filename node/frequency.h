/*
 * frequency.h - fixes the frequency of its CPUs. Part of <eas/node.h>, whose conventions hold.
 *
 * Fixes CPUs at a frequency with whatever driver the node has, and gives back what was there:
 *
 *     easnode_frequency* frequency;
 *     easnode_frequency_open("0-15", &frequency, &problem);
 *     easnode_frequency_save(frequency, 2000000, text, sizeof text, &length);   store this first
 *     easnode_frequency_set(frequency, 2000000, &problem);
 *     ...
 *     easnode_frequency_restore(frequency, text, length, &problem);
 *     easnode_frequency_close(frequency);
 *
 * After a crash any process of the node gives it back: easnode_frequency_restore(NULL, text, ...).
 *
 * CPUs that share one clock (a cpufreq policy) are set together, those that were not named, too.
 * Closing a handle gives nothing back. Two programs that steer the same CPUs are not kept apart.
 *
 * How: where the driver offers the governor "userspace", by it and scaling_setspeed, with the
 * limits where the driver has no table of frequencies; else by scaling_min_freq = scaling_max_freq.
 * The turbo switch (policyN/boost, cpufreq/boost or intel_pstate/no_turbo) is turned on for a
 * frequency above the nominal one, and off for the highest entry of a table that would boost
 * otherwise. Limits are always widened before they are narrowed.
 *
 * Privileges: reading needs none; setting and restoring needs to write the files below
 * /sys/devices/system/cpu/cpufreq (mode 0644, root).
 */
#ifndef EAS_NODE_FREQUENCY_H
#define EAS_NODE_FREQUENCY_H

#include <stddef.h>
#include <stdint.h>

#include "codes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What went wrong, where; filled after every call that is given one, with zeros after success. */
typedef struct easnode_problem {
    size_t size;                  /* in: sizeof(easnode_problem) */
    int32_t code;                 /* what the function returned */
    int32_t cpu;                  /* the first CPU of those concerned; -1: no certain one */
    int32_t error;                /* errno of the kernel; 0: none */
    char path[96];                /* the file; empty: no certain one */
    char text[EASNODE_TEXT_SIZE]; /* a sentence without a full stop */
} easnode_problem;

/* Where the nominal frequency comes from: the first of these that the node has. */
enum easnode_nominal_source {
    EASNODE_NOMINAL_UNKNOWN = 0,
    EASNODE_NOMINAL_BASE,  /* cpufreq's base_frequency */
    EASNODE_NOMINAL_TURBO, /* cpuinfo_max_freq less intel_pstate's turbo range */
    EASNODE_NOMINAL_CPPC,  /* the firmware's acpi_cppc/nominal_freq */
    EASNODE_NOMINAL_TABLE, /* highest entry of the driver's table that is not a turbo one */
    EASNODE_NOMINAL_NAME,  /* "@ 2.60GHz" in the processor's name */
    EASNODE_NOMINAL_CPUID  /* the processor's own statement (x86: leaf 0x16) */
};

/* How a frequency can be fixed. */
enum easnode_frequency_method {
    EASNODE_FREQUENCY_NONE = 0, /* not at all: no cpufreq driver */
    EASNODE_FREQUENCY_USERSPACE,
    EASNODE_FREQUENCY_LIMITS
};

/* State of the turbo switch. */
enum easnode_turbo {
    EASNODE_TURBO_NO_SWITCH = 0,
    EASNODE_TURBO_OFF,
    EASNODE_TURBO_ON,
    EASNODE_TURBO_MIXED /* not the same for all CPUs of the handle */
};

/* What the CPUs of a handle have in common. */
typedef struct easnode_frequency_info {
    size_t size;            /* in: sizeof(easnode_frequency_info) */
    int32_t cpus;           /* CPUs that are set together with those asked for */
    int32_t policies;       /* groups of them that share a clock */
    int32_t method;         /* enum easnode_frequency_method */
    int32_t turbo;          /* enum easnode_turbo, now */
    int32_t nominal_khz;    /* nominal (base) frequency, the lowest of these CPUs; 0: unknown */
    int32_t nominal_source; /* enum easnode_nominal_source, of that CPU */
    int32_t lowest_khz;     /* that all of them reach down to; 0: unknown */
    int32_t highest_khz;    /* that all of them reach up to, with turbo; 0: unknown */
    int32_t bios_limit_khz; /* a limit that the firmware holds now, the lowest; 0: none */
    int32_t has_table;      /* 1: the driver has a table and takes no value in between */
    char driver[EASNODE_NAME_SIZE];   /* the cpufreq driver; "mixed"; empty: none */
    char governor[EASNODE_NAME_SIZE]; /* now; "mixed"; empty: none */
} easnode_frequency_info;

/* A frequency that is offered. This record does not grow. */
typedef struct easnode_step {
    int32_t khz;
    int32_t turbo; /* 1: stands for "as fast as turbo allows", or lies above the nominal one */
} easnode_step;

/* What is set for a CPU. This record does not grow. */
typedef struct easnode_cpu_frequency {
    int32_t cpu;
    int32_t policy;       /* CPUs with the same number share a clock */
    int32_t min_khz;      /* lower limit; -1: cannot be read, as the next three */
    int32_t max_khz;      /* upper limit */
    int32_t setspeed_khz; /* what the governor "userspace" was told; -1 under any other */
    int32_t current_khz;  /* what the kernel says of now: idle CPUs say their lowest; x86 measures
                             over the last 20 ms or so, others repeat the last request */
    char governor[EASNODE_NAME_SIZE]; /* empty: none */
} easnode_cpu_frequency;

enum {
    /* Bytes that hold every text of easnode_frequency_save, NUL included. It is mostly below 300:
       CPUs with the same settings share a line. */
    EASNODE_FREQUENCY_TEXT_SIZE = 65536
};

typedef struct easnode_frequency easnode_frequency;

/*
 * Opens the frequencies of some CPUs. Changes nothing, keeps no descriptor.
 *
 *   cpus        the CPUs as the kernel writes them, "0-3,8"; null: all that are online
 *   frequency   out: the handle, or null after a failure
 *   problem     out, may be null
 *
 * Returns EASNODE_OK, also where no frequency can be set; EASNODE_BAD_ARGUMENT, also for a CPU that
 * is not online and for a list that is none; EASNODE_NO_MEMORY.
 */
EAS_API int easnode_frequency_open(const char* cpus, easnode_frequency** frequency,
                                   easnode_problem* problem);

/* Frees a handle. Nothing is given back. */
EAS_API void easnode_frequency_close(easnode_frequency* frequency);

/*
 * Tells how the CPUs can be set.
 *
 *   info        out; unchanged after a failure
 *
 * Returns EASNODE_OK, EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY.
 */
EAS_API int easnode_frequency_describe(const easnode_frequency* frequency,
                                       easnode_frequency_info* info);

/*
 * Lists the frequencies offered, highest first: those in the driver's table; without one the
 * lowest, the multiples of 100 MHz above it, and the nominal one. Only what all CPUs of the handle
 * offer.
 *
 *   steps       out: room for `capacity` of them; may be null when that is 0
 *   count       out: how many there are, also when there is too little room
 *
 * Returns EASNODE_OK; EASNODE_TOO_SMALL when there are more than `capacity` (the first ones are
 * given); EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY.
 */
EAS_API int easnode_frequency_steps(const easnode_frequency* frequency, easnode_step* steps,
                                    size_t capacity, size_t* count);

/*
 * Reads back what is set, CPU by CPU, ascending.
 *
 *   rows        out: room for `capacity` of them; may be null when that is 0
 *   count       out: how many there are, also when there is too little room
 *
 * Returns as easnode_frequency_steps.
 */
EAS_API int easnode_frequency_read(const easnode_frequency* frequency, easnode_cpu_frequency* rows,
                                   size_t capacity, size_t* count);

/*
 * Writes down what is set now: governor, limits, set speed, turbo switch, energy preference. To be
 * called, and the text to be stored, before anything is set.
 *
 *   khz         the frequency that is about to be set, so that another program's changes are
 *               noticed later; 0: not yet known
 *   text        out: `capacity` bytes for a text of lines, which ends in NUL; see
 *               EASNODE_FREQUENCY_TEXT_SIZE
 *   length      out, may be null: bytes of the text without its NUL, also when there is too little
 *               room
 *
 * The text serves this boot of this node. Returns EASNODE_OK; EASNODE_TOO_SMALL (`text` is empty);
 * EASNODE_NO_FREQUENCY where none can be set; EASNODE_DENIED or EASNODE_NOT_TAKEN when a setting
 * cannot be read; EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY.
 */
EAS_API int easnode_frequency_save(const easnode_frequency* frequency, int32_t khz, char* text,
                                   size_t capacity, size_t* length, easnode_problem* problem);

/*
 * Fixes the CPUs at a frequency, and reads it back.
 *
 *   khz         any entry of the table; without a table anything from the lowest to the highest
 *               frequency, which the hardware rounds to its own steps
 *   problem     out, may be null
 *
 * Whether they run at it is another question: see easnode_frequency_check_begin.
 *
 * Returns EASNODE_OK; after any failure what was changed is given back:
 *   EASNODE_NO_FREQUENCY     a CPU has no cpufreq driver
 *   EASNODE_NOT_OFFERED      the frequency is not offered, or a limit of the firmware forbids it,
 *                            or it takes the turbo switch of the whole node while the handle has
 *                            some CPUs only
 *   EASNODE_DENIED           the files may not be written
 *   EASNODE_NOT_TAKEN        the driver refused, or something else stands there afterwards
 *   EASNODE_NOT_GIVEN_BACK   one of the above, and giving back failed, too
 *   EASNODE_BAD_ARGUMENT, EASNODE_NO_MEMORY
 */
EAS_API int easnode_frequency_set(easnode_frequency* frequency, int32_t khz,
                                  easnode_problem* problem);

/*
 * Gives back what easnode_frequency_save wrote down. May be called again: only what differs is
 * written.
 *
 *   frequency   the handle that set a frequency since; null: another process did
 *   text        `length` bytes. All of it is checked before anything is written, and nothing but
 *               the settings of the node's own policies can be reached through it
 *   problem     out, may be null
 *
 * Returns EASNODE_OK, or
 *   EASNODE_MOVED            all is given back, but another program had changed settings meanwhile:
 *                            neither what was saved nor what was set stood there
 *   EASNODE_NOT_GIVEN_BACK   something could not be given back, or its CPUs went offline; the rest
 *                            is
 *   EASNODE_BAD_TEXT         the text is damaged or none; nothing was changed
 *   EASNODE_OTHER_NODE       the text is of another boot, or another driver runs now, and with it
 *                            the settings are gone; nothing was changed, the text can be removed
 *   EASNODE_DENIED           nothing could be given back for want of privileges
 *   EASNODE_BAD_ARGUMENT, EASNODE_NO_MEMORY
 */
EAS_API int easnode_frequency_restore(easnode_frequency* frequency, const char* text, size_t length,
                                      easnode_problem* problem);

/* What a check found. */
enum easnode_verdict {
    EASNODE_CANNOT_TELL = 0, /* `text` says why */
    EASNODE_RUNS_AT,         /* the CPUs ran at the frequency, within 2 % */
    EASNODE_RUNS_OTHERWISE   /* they did not */
};

/* The clock of the CPUs while they were busy. */
typedef struct easnode_clock {
    size_t size;         /* in: sizeof(easnode_clock) */
    int32_t verdict;     /* enum easnode_verdict */
    int32_t asked_khz;   /* the frequency to check against */
    int32_t mean_khz;    /* over the busy time of all CPUs; 0: unknown, as the next four */
    int32_t slowest_khz; /* of a CPU that was busy for a tenth of the time, at least */
    int32_t slowest_cpu;
    int32_t fastest_khz;
    int32_t fastest_cpu;
    double busy_seconds;            /* summed over the CPUs */
    char source[EASNODE_NAME_SIZE]; /* "ref-cycles", "aperf/mperf" or "busy time"; empty: none */
    char text[EASNODE_TEXT_SIZE]; /* why it cannot be told, or what may hold the clock; or empty */
} easnode_clock;

typedef struct easnode_frequency_check easnode_frequency_check;

/*
 * Begins to watch the clock of the handle's CPUs, for the length of a busy period of a tenth of a
 * second or more.
 *
 *   khz         the frequency to check against
 *   check       out: to be given to easnode_frequency_check_end; null after a failure
 *
 * Counts core cycles against cycles at the nominal frequency (perf events cycles and ref-cycles; or
 * aperf and mperf of the PMU "msr"); where neither counts, cycles against the busy time of
 * /proc/stat, which takes a second or more and CPUs that are busy throughout. Needs what perf
 * events of the whole node need: CAP_PERFMON, or kernel.perf_event_paranoid of 0 or below.
 *
 * Takes two descriptors per CPU. Returns EASNODE_OK, also when nothing can be counted (the end then
 * says why); EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY.
 */
EAS_API int easnode_frequency_check_begin(const easnode_frequency* frequency, int32_t khz,
                                          easnode_frequency_check** check);

/*
 * Ends a check and frees it.
 *
 *   clock       out; null: the check is given up
 *
 * Returns EASNODE_OK, EASNODE_BAD_ARGUMENT or EASNODE_NO_MEMORY; the check is gone in any case.
 */
EAS_API int easnode_frequency_check_end(easnode_frequency_check* check, easnode_clock* clock);

#ifdef __cplusplus
}
#endif

#endif /* EAS_NODE_FREQUENCY_H */

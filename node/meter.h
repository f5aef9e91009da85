/*
 * meter.h - counts what the node does. Part of <eas/node.h>, whose conventions hold.
 *
 * A meter counts from its opening on: cycles and instructions of the processors, bytes between
 * processors and memory, and joules. It is opened once and read as often as wanted; two readings
 * are subtracted to get what happened between them.
 *
 * Each figure comes from one source for the meter's whole life. The sources of a figure are tried
 * in the order of its list when the meter is opened, and the first that serves is used. One that
 * fails later makes the figure missing from then on, with the reason: two sources are never mixed.
 *
 * Sources, in the default order of each list (those in brackets only when they are named):
 *
 *   core     perf          perf events on every online CPU, or of the process
 *   memory   imc           the memory controllers' PMUs of Intel processors
 *            umc           the memory controllers' PMUs of AMD processors (Zen 4 and later)
 *            arm           PMUs of Arm's memory controllers and meshes that tell their unit
 *            df            AMD's data fabric: a sample, more channels than counters
 *            resctrl       the caches' bandwidth monitors, where resctrl is mounted
 *            registers     counters that the meter programs itself, as gethwrusage(3) does, on
 *                          Intel processors of models 26 to 62; one program at a time, see the
 *                          options
 *            [misses]      last-level cache misses times line size; an estimate, and no measure of
 *                          traffic; also tried last when allow_estimate is set
 *   energy   [command]     a command of the site, tried first when one is given
 *            pm_counters   the node's own energy counter (/sys/cray/pm_counters)
 *            qpx           the energy meter of getenrusage(3)
 *            hwmon         a node power meter (ACPI), integrated over time
 *            rapl-perf     packages and memory through the PMU "power"; the kernel folds its wraps
 *            powercap      the same counters through /sys/class/powercap
 *            [psys]        the platform counter; its extent is set by the board's maker
 *
 * How often to read: a source that integrates power, or whose counter wraps, must be read at least
 * every read_within_ns (a member of the figure); where it was not, and the figure may be wrong for
 * it, the figure is missing from then on.
 */
#ifndef EAS_NODE_METER_H
#define EAS_NODE_METER_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "codes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The figures of a reading. */
enum easnode_figure_id {
    EASNODE_CYCLES,       /* core cycles while not halted; hyper-threads each count their own */
    EASNODE_INSTRUCTIONS, /* instructions retired */
    EASNODE_MEMORY,       /* bytes read from and written to memory */
    EASNODE_ENERGY,       /* joules */
    EASNODE_FIGURES       /* how many there are */
};

/* How good a figure is. */
enum easnode_quality {
    EASNODE_MISSING = 0, /* there is none: `reason` says why, and `value` means nothing */
    EASNODE_COUNTED,     /* by a counter that counted all the time */
    EASNODE_SCALED,      /* by one that shared its hardware: scaled up to the whole time */
    EASNODE_INTEGRATED,  /* power readings, integrated over time */
    EASNODE_ESTIMATED    /* of something else that goes along with it */
};

/* What a figure covers. Figures of different extents have no common measure. */
enum easnode_extent {
    EASNODE_NO_EXTENT = 0,       /* the figure is missing */
    EASNODE_NODE,                /* the whole node; of core counts: every online CPU */
    EASNODE_PACKAGES_AND_MEMORY, /* processor packages and the memory behind them */
    EASNODE_PACKAGES,            /* processor packages only */
    EASNODE_PLATFORM,            /* as far as the board's maker wired it */
    EASNODE_MODULES,             /* processor modules with their memory */
    EASNODE_CORES,               /* the traffic of the cores, without devices */
    EASNODE_CACHE_MISSES,        /* misses of the last-level caches */
    EASNODE_PROCESS,             /* a process and what it starts */
    EASNODE_PROCESS_USER         /* the same, without the kernel's work for it */
};

/* What the site's command prints. */
enum { EASNODE_COMMAND_WATTS = 0, EASNODE_COMMAND_JOULES = 1 };

/* What the source "registers" may do. Its counters belong to the node: two programs that set them
   up spoil each other's figures. */
enum easnode_registers {
    EASNODE_REGISTERS_IF_FREE = 0, /* programs them, unless somebody has them */
    EASNODE_REGISTERS_TAKE = 1, /* programs them all the same: after a crash, which leaves them set,
                                   or at the cost of whoever has them */
    EASNODE_REGISTERS_LOOK = 2 /* programs nothing: the meter says whether they would serve, and the
                                  figure is missing */
};

/* One figure. All counts are exact up to 2^53. */
typedef struct easnode_figure {
    double value;                   /* since the meter was opened; 0 while it is missing */
    int32_t quality;                /* enum easnode_quality */
    int32_t extent;                 /* enum easnode_extent */
    uint64_t read_within_ns;        /* read again within this time; 0: no need */
    char source[EASNODE_NAME_SIZE]; /* the source's name; empty when none serves */
    char covers[EASNODE_TEXT_SIZE]; /* what it covers, in words; empty when it is missing */
    char reason[EASNODE_TEXT_SIZE]; /* why it is missing; else empty */
    uint64_t reserved[4];           /* 0 */
} easnode_figure;

/* One reading. */
typedef struct easnode_reading {
    size_t size;      /* in: sizeof(easnode_reading) */
    uint64_t time_ns; /* since the meter was opened (CLOCK_MONOTONIC) */
    easnode_figure cycles;
    easnode_figure instructions;
    easnode_figure memory; /* bytes */
    easnode_figure energy; /* joules */
} easnode_reading;

/*
 * What to measure and how. All 0 but `size`: the node, the default sources.
 *
 * A list of sources holds names between commas; they are tried in this order, and no others. Null:
 * the default order. "none": the figure is not wanted.
 */
typedef struct easnode_meter_options {
    size_t size;   /* sizeof(easnode_meter_options) */
    pid_t process; /* 0: the node. Else the core counts are those of this process, all its threads,
                      and what it starts from now on; memory and energy stay the node's */
    int allow_estimate;          /* not 0: cache misses may stand for memory traffic, see above */
    const char* core_sources;    /* for cycles and instructions */
    const char* memory_sources;  /* for the bytes of memory traffic */
    const char* energy_sources;  /* for joules */
    const char* const* command;  /* the site's command: its arguments, then null. The first is an
                                    absolute path; no shell is between. Null: none */
    int command_gives;           /* EASNODE_COMMAND_WATTS or, cumulative, EASNODE_COMMAND_JOULES */
    unsigned command_timeout_ms; /* it and its children are killed after that time; 0: 2000 */
    int registers;               /* enum easnode_registers */
} easnode_meter_options;

/* What became of a source when the meter was opened. */
enum easnode_source_state {
    EASNODE_SERVES = 0, /* it is used */
    EASNODE_REFUSED,    /* it was tried: `text` says why it does not serve */
    EASNODE_NOT_TRIED,  /* one before it in the order serves */
    EASNODE_NOT_WANTED  /* it is not in the order */
};

/* A source of a figure. */
typedef struct easnode_source {
    size_t size;    /* in: sizeof(easnode_source) */
    int32_t state;  /* enum easnode_source_state */
    int32_t extent; /* enum easnode_extent, where it serves */
    char name[EASNODE_NAME_SIZE];
    char text[EASNODE_TEXT_SIZE]; /* what it covers, or why it does not serve */
} easnode_source;

typedef struct easnode_meter easnode_meter;

/*
 * Opens a meter; it counts from now on.
 *
 *   options   null: as a record of zeros. Nothing in it is kept but what it says
 *   meter     out: the meter, or null after a failure
 *
 * Takes two descriptors for each online CPU, and some for each memory controller. Where that is
 * more than a quarter of the process's soft limit (RLIMIT_NOFILE), the limit is raised for the
 * length of the call, as far as the hard limit lets it, and the descriptors get numbers above it,
 * so that the program keeps its own. A command of the site is run once.
 *
 * Where the source "registers" serves, the memory counters of the processors are programmed until
 * the meter is closed, and each reading binds the calling thread to a CPU of each socket for a
 * moment.
 *
 * Returns EASNODE_OK, also when no source serves; EASNODE_BAD_ARGUMENT, EASNODE_NO_MEMORY,
 * EASNODE_NO_SUCH_SOURCE or EASNODE_NO_SUCH_PROCESS.
 */
EAS_API int easnode_meter_open(const easnode_meter_options* options, easnode_meter** meter);

/*
 * Reads all figures. May wait for a command of the site, as long as its time limit.
 *
 *   reading   out; unchanged after a failure
 *
 * The time is taken first. Each CPU is interrupted for a moment: do not read more often than
 * needed. Returns EASNODE_OK, also when figures are missing, EASNODE_BAD_ARGUMENT or
 * EASNODE_NO_MEMORY (the reading is lost; the next one has its part).
 */
EAS_API int easnode_meter_read(easnode_meter* meter, easnode_reading* reading);

/*
 * Tells what became of a source.
 *
 *   figure    enum easnode_figure_id
 *   index     0, 1, 2, ...: first those that were to be tried, in order, then the others
 *   source    out; unchanged after a failure
 *
 * Returns EASNODE_OK; EASNODE_BAD_ARGUMENT, also for an index behind the last source.
 */
EAS_API int easnode_meter_source(const easnode_meter* meter, int figure, size_t index,
                                 easnode_source* source);

/* Closes a meter and all that it holds. */
EAS_API void easnode_meter_close(easnode_meter* meter);

#ifdef __cplusplus
}
#endif

#endif /* EAS_NODE_METER_H */

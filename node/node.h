/*
 * node.h - the interface of libeasnode (C11 and C++17): measures and steers a compute node.
 *
 * Works on any Linux node: the processors' events, the memory controllers, the energy counters and
 * the frequencies are those that the kernel offers there.
 *
 * Conventions of every function here
 *   Return value   0 on success, else a negative code of enum easnode_return_code; no other value.
 *                  Nothing is printed and nothing is thrown.
 *   Records        A record that may grow in later releases begins with its own size, which the
 *                  caller sets before each call; the library reads and fills no more than that.
 *                  Texts in records are arrays that end in NUL: nothing has to be freed.
 *   Handles        Made by an open function, given back by its close function; closing a null one
 *                  does nothing. An output handle is null after a failure.
 *   Threads        One handle belongs to one thread at a time; different handles may be used in
 *                  different threads at the same time. The library starts no thread. A thread that
 *                  is cancelled inside a call finishes the call.
 *   Privileges     Those that the kernel asks for, per source; see security.md of the guides. What
 *                  is denied is a missing figure with its reason, not a failure.
 *   Side effects   None on the node, unless a function says so.
 */
#ifndef EAS_NODE_H
#define EAS_NODE_H

#include <stddef.h>
#include <stdint.h>
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

/* What the functions return. */
enum easnode_return_code {
    EASNODE_OK = 0,
    EASNODE_BAD_ARGUMENT = -1,    /* null, out of range, or a record whose size is too small */
    EASNODE_NO_MEMORY = -2,       /* nothing was changed */
    EASNODE_NO_SUCH_SOURCE = -3,  /* a list of sources names one that does not exist */
    EASNODE_NO_SUCH_PROCESS = -4, /* the process to follow does not exist */
    EASNODE_TOO_SMALL = -5,       /* there is more than the caller has room for */
    EASNODE_NO_FREQUENCY = -6,    /* no cpufreq driver: no frequency can be set */
    EASNODE_NOT_OFFERED = -7,     /* a frequency that is not offered, or forbidden by a limit */
    EASNODE_DENIED = -8,          /* the kernel asks for a privilege */
    EASNODE_NOT_TAKEN = -9,       /* the driver refused a setting, or did not keep it */
    EASNODE_BAD_TEXT = -10,       /* a text of settings that is damaged, or none */
    EASNODE_OTHER_NODE = -11,     /* a text of another boot or another driver */
    EASNODE_MOVED = -12,          /* given back, but another program had changed it meanwhile */
    EASNODE_NOT_GIVEN_BACK = -13, /* a setting could not be given back */
    EASNODE_STOPPED = -14         /* the caller's function stopped it */
};

/*
 * What a return code means, as an English text without a full stop. Never null; a text that stays.
 */
EAS_API const char* easnode_error_text(int code);

/* ---------------------------------------------------------------------------------------------
 * Meter
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
 *            df            AMD's data fabric: a sample, more channels than counters
 *            resctrl       the caches' bandwidth monitors, where resctrl is mounted
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
 * ------------------------------------------------------------------------------------------- */

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

enum {
    EASNODE_NAME_SIZE = 32,  /* bytes of a source's name, NUL included */
    EASNODE_TEXT_SIZE = 192, /* bytes of a sentence, NUL included; a longer one is cut */
    EASNODE_COMMAND_WATTS = 0,
    EASNODE_COMMAND_JOULES = 1
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

/* ---------------------------------------------------------------------------------------------
 * Topology
 *
 * The online CPUs as /sys/devices/system/cpu shows them. CPUs may be missing in between, and there
 * may be more than 1024. Needs no privilege.
 * ------------------------------------------------------------------------------------------- */

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
    char processor[EASNODE_TEXT_SIZE]; /* its name; empty: unknown */
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

/* ---------------------------------------------------------------------------------------------
 * Frequency
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
 * ------------------------------------------------------------------------------------------- */

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
 * or it takes the turbo switch of the whole node while the handle has some CPUs only EASNODE_DENIED
 * the files may not be written EASNODE_NOT_TAKEN        the driver refused, or something else
 * stands there afterwards EASNODE_NOT_GIVEN_BACK   one of the above, and giving back failed, too
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

/* ---------------------------------------------------------------------------------------------
 * Record
 *
 * The files that this library reads on this node, for a report about a fault or for a test that
 * replays the node: those of the processors, their frequencies, counters and energy meters below
 * /proc and /sys. No serial numbers, no network addresses, no names of jobs; the node's own name
 * only when it is wanted.
 * ------------------------------------------------------------------------------------------- */

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

#endif /* EAS_NODE_H */

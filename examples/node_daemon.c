/*
 * node_daemon - runs a command and samples its counters and the node's energy, a line per sample.
 *
 * What a scheduler's node process does for a job: start it stopped, program the counters, let it
 * go, sample at an interval, tear down. Install it owned by root with the set-user-id bit, or run
 * it as root; between samples it is the user who started it.
 */
#define _POSIX_C_SOURCE 200809L

#include <eas/EasMisc.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { EXIT_USAGE = 2, EXIT_NO_HARDWARE = 3, EXIT_NO_START = 126, EXIT_NOT_FOUND = 127 };

enum { no_temperature = 999 }; /* a margin beyond it is one below 0, so none either */

/* One look at everything. */
struct sample {
    double seconds; /* monotonic clock */
    hwrusage hardware;
    enrusage energy;
};

/* What this node has; the columns of what it has not show a dash. */
struct sources {
    int hardware;
    int core_counters;
    int energy;
};

static void print_usage(FILE* out) {
    fputs(
        "usage: node_daemon [-i SECONDS] COMMAND [ARGUMENT...]\n"
        "\n"
        "Runs COMMAND and prints, each SECONDS (default 1) and at its end, its processor\n"
        "cycles, instructions per cycle and floating-point rate, and the node's memory\n"
        "traffic, temperature margin, energy and power.\n"
        "\n"
        "  -i, --interval SECONDS   time between two samples, 0.01 to 86400\n"
        "  -h, --help               this text\n"
        "\n"
        "Exit status: that of COMMAND (128 + N when signal N ended it); 2 for a wrong call,\n"
        "3 when the node has nothing to sample (COMMAND is then not run), 126 or 127 when\n"
        "COMMAND cannot be started or is not found.\n",
        out);
}

static double now_seconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

/* Why gethwrusage said no: the register device, or the processor. */
static void explain_missing_hardware(void) {
    fputs("node_daemon: no hardware counters: ", stderr);
    restore_priv();
    if (access("/dev/cpu/0/msr", F_OK) != 0) {
        fputs("there is no /dev/cpu/0/msr; load the kernel module: modprobe msr\n", stderr);
    } else if (geteuid() != 0) {
        fputs("/dev/cpu/0/msr needs root; run as root or set-user-id root\n", stderr);
    } else {
        fputs("this processor model is not supported (or /dev/cpu/0/msr needs CAP_SYS_RAWIO)\n",
              stderr);
    }
    drop_priv_temp(getuid());
}

static void explain_missing(const struct sources* sources) {
    if (!sources->hardware) {
        explain_missing_hardware();
    } else if (!sources->core_counters) {
        fputs(
            "node_daemon: no core counters: the kernel refused perf_event_open; it needs root or "
            "CAP_PERFMON, and a processor whose counters are not hidden by a virtual machine\n",
            stderr);
    }
    if (!sources->energy) {
        fputs(
            "node_daemon: no energy meter: neither /sys/devices/platform/qpx.1 nor qpx.0 counts; "
            "load the kernel module of the node's energy meter\n",
            stderr);
    }
}

/* What only a sample shows: the library reports no source that fails. */
static void explain_missing_readings(const hwrusage* sample) {
    if (sample->membytes_xferred == 0) {
        fputs(
            "node_daemon: no memory traffic: processor models 42 and 46 have no counters for it; "
            "26, 30, 37, 44 and 47 need write access to /dev/cpu/N/msr (msr.allow_writes), 45 and "
            "62 root with CAP_SYS_RAWIO, /dev/mem and /sys/firmware/acpi/tables/MCFG\n",
            stderr);
    }
    if (sample->inlet_temperature >= no_temperature) {
        fputs(
            "node_daemon: no temperature: processor models 42 and 46 have no sensor that is read, "
            "or /dev/cpu/N/msr of a socket gave no valid reading; it needs CAP_SYS_RAWIO\n",
            stderr);
    }
}

static int take_sample(pid_t pid, struct sample* sample) {
    memset(sample, 0, sizeof *sample);
    sample->seconds = now_seconds();
    getenrusage(RUSAGE_SELF, &sample->energy);
    return gethwrusage(pid, &sample->hardware);
}

/* What a counter grew by; -1, "unknown", where it has become smaller: it was started again. */
static double growth(uint64_t before, uint64_t after) {
    return after >= before ? (double)(after - before) : -1;
}

/* The same of the energy meter in J; a reading of 0 is none. */
static double joules_between(const struct sample* before, const struct sample* after) {
    const int known = before->energy.energy1_input != 0 && after->energy.energy1_input != 0;
    return known ? growth(before->energy.energy1_input, after->energy.energy1_input) / 1e6 : -1;
}

static void print_ratio(double dividend, double divisor, int available) {
    if (available && dividend >= 0 && divisor > 0) {
        printf(" %10.3f", dividend / divisor);
    } else {
        printf(" %10s", "-");
    }
}

static void print_header(void) {
    printf("%10s %10s %10s %10s %10s %10s %10s %10s\n", "time_s", "Gcycles/s", "instr/cyc",
           "GFLOP/s", "mem_GB/s", "margin_C", "energy_J", "power_W");
}

/* Rates between two samples, and the time and energy (J, -1 unknown) since the first one. */
static void print_line(const struct sources* sources, double start, double all_joules,
                       const struct sample* last, const struct sample* now) {
    const double seconds = now->seconds - last->seconds;
    const hwrusage* before = &last->hardware;
    const hwrusage* after = &now->hardware;
    const double cycles = growth(before->cycles, after->cycles);
    const int core = sources->core_counters;

    printf("%10.2f", now->seconds - start);
    print_ratio(cycles / 1e9, seconds, core);
    print_ratio(growth(before->instructions, after->instructions), cycles, core);
    print_ratio(growth(before->flops, after->flops) / 1e9, seconds, core);
    print_ratio(growth(before->membytes_xferred, after->membytes_xferred) / 1e9, seconds,
                sources->hardware && after->membytes_xferred != 0);
    print_ratio((double)after->inlet_temperature, 1,
                sources->hardware && after->inlet_temperature < no_temperature);
    print_ratio(all_joules, 1, sources->energy);
    print_ratio(joules_between(last, now), seconds, sources->energy);
    putchar('\n');
    fflush(stdout);
}

/* In the child: gives up root, waits until the parent counts, becomes the command. */
static void become_command(char** command, int go, const sigset_t* old_signals) {
    char byte;
    if (drop_priv_perm(getuid()) != 0 || read(go, &byte, 1) != 1)
        _exit(EXIT_NO_START);
    close(go);
    sigprocmask(SIG_SETMASK, old_signals, NULL);
    execvp(command[0], command);
    const int error = errno;
    fprintf(stderr, "node_daemon: %s: %s\n", command[0], strerror(error));
    _exit(error == ENOENT ? EXIT_NOT_FOUND : EXIT_NO_START);
}

/* Starts the command so that it waits for a byte on *go. Returns its process id or -1. */
static pid_t start_command(char** command, int* go, const sigset_t* old_signals) {
    int ends[2];
    if (pipe(ends) != 0)
        return -1;
    fflush(NULL);
    const pid_t pid = fork();
    if (pid == 0) {
        close(ends[1]);
        become_command(command, ends[0], old_signals);
    }
    close(ends[0]);
    *go = ends[1];
    if (pid < 0)
        close(ends[1]);
    return pid;
}

/* Waits for the interval or the end of the command, passing signals on. 1 once it ended. */
static int ended_within(pid_t pid, double interval, const sigset_t* signals, int* status) {
    const double until = now_seconds() + interval;
    for (;;) {
        if (waitpid(pid, status, WNOHANG) != 0)
            return 1;
        const double left = until - now_seconds();
        if (left <= 0)
            return 0;
        const time_t whole = (time_t)left;
        const struct timespec timeout = {whole, (long)((left - (double)whole) * 1e9)};
        const int signal_number = sigtimedwait(signals, NULL, &timeout);
        if (signal_number == SIGINT || signal_number == SIGTERM)
            kill(pid, signal_number);
    }
}

static int sample_until_end(pid_t pid, double interval, const struct sources* sources,
                            const struct sample* first, const sigset_t* signals) {
    struct sample last = *first;
    int status = 0;
    int ended = 0;
    double all_joules = 0;
    print_header();
    while (!ended) {
        struct sample now;
        ended = ended_within(pid, interval, signals, &status);
        take_sample(pid, &now);
        if (sources->hardware && last.seconds == first->seconds)
            explain_missing_readings(&now.hardware);
        const double joules = joules_between(&last, &now);
        all_joules = all_joules >= 0 && joules >= 0 ? all_joules + joules : -1;
        print_line(sources, first->seconds, all_joules, &last, &now);
        last = now;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

static int run(char** command, double interval) {
    sigset_t signals;
    sigset_t old_signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGPIPE); /* a command that cannot start has closed its pipe */
    sigprocmask(SIG_BLOCK, &signals, &old_signals);

    int go = -1;
    const pid_t pid = start_command(command, &go, &old_signals);
    if (pid < 0) {
        perror("node_daemon: cannot start a process");
        return EXIT_NO_START;
    }
    struct sample first;
    struct sources sources;
    sources.hardware = take_sample(pid, &first) == 0;
    sources.core_counters = sources.hardware && first.hardware.tstamp != 0;
    sources.energy = verify_qpx() != 0;
    explain_missing(&sources);

    int result = EXIT_NO_HARDWARE;
    if (sources.hardware || sources.energy) {
        const int started = write(go, "", 1) == 1;
        close(go);
        result = sample_until_end(pid, interval, &sources, &first, &signals);
        if (!started)
            result = EXIT_NO_START;
    } else {
        close(go); /* without the byte the child ends by itself */
        waitpid(pid, NULL, 0);
    }
    if (sources.hardware)
        gethwrusage(pid, NULL);
    return result;
}

/* The interval in s, or 0 for a text that is none. */
static double parse_interval(const char* text) {
    char* end;
    const double seconds = strtod(text, &end);
    const int good = end != text && *end == '\0' && seconds >= 0.01 && seconds <= 86400;
    return good ? seconds : 0;
}

int main(int argc, char** argv) {
    double interval = 1;
    int next = 1;
    for (; next < argc && argv[next][0] == '-'; ++next) {
        const char* option = argv[next];
        if (strcmp(option, "-h") == 0 || strcmp(option, "--help") == 0) {
            print_usage(stdout);
            return EXIT_SUCCESS;
        }
        if (strcmp(option, "--") == 0) {
            ++next;
            break;
        }
        const int is_interval = strcmp(option, "-i") == 0 || strcmp(option, "--interval") == 0;
        interval = is_interval && next + 1 < argc ? parse_interval(argv[++next]) : 0;
        if (interval <= 0)
            break;
    }
    if (next >= argc || interval <= 0) {
        print_usage(stderr);
        return EXIT_USAGE;
    }
    if (drop_priv_temp(getuid()) != 0) {
        perror("node_daemon: cannot become the user who started it");
        return EXIT_NO_START;
    }
    return run(argv + next, interval);
}

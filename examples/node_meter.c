/*
 * node_meter.c - measures the node, or a command, with libeasnode.
 *
 * usage: node_meter [-i SECONDS] [-p] [-e] [--] COMMAND [ARGUMENT...]
 *
 *   -i SECONDS   time between readings (1)
 *   -p           cycles and instructions of the command and what it starts; without it, of the node
 *   -e           cache misses may stand for memory traffic
 *
 * Prints which sources serve, then a line per reading with the changes since the one before. The
 * exit status is that of the command; 125 when it cannot be started.
 *
 * Build: cc -std=c11 node_meter.c $(pkg-config --cflags --libs easnode)
 */
#define _GNU_SOURCE
#include <eas/node.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { EXIT_NO_START = 125 };

struct run {
    double interval; /* s */
    int of_process;
    int estimate;
    char** command;
};

static void print_figure(const char* name, const easnode_figure* figure) {
    if (figure->quality == EASNODE_MISSING)
        printf("%-13s missing: %s\n", name, figure->reason);
    else
        printf("%-13s %s: %s\n", name, figure->source, figure->covers);
}

/* A rate, or "-" where the figure is missing at one end: it is not 0 then. */
static void print_rate(const easnode_figure* before, const easnode_figure* now, double divisor) {
    if (before->quality == EASNODE_MISSING || now->quality == EASNODE_MISSING)
        printf(" %12s", "-");
    else
        printf(" %12.3f", (now->value - before->value) / divisor);
}

/* What was counted in all; a missing figure is not 0 here, either. */
static void print_growth(const easnode_figure* before, const easnode_figure* now, int decimals,
                         const char* unit) {
    if (before->quality == EASNODE_MISSING || now->quality == EASNODE_MISSING)
        printf("- %s", unit);
    else
        printf("%.*f %s", decimals, now->value - before->value, unit);
}

static void print_line(const easnode_reading* before, const easnode_reading* now) {
    const double seconds = (double)(now->time_ns - before->time_ns) * 1e-9;
    printf("%9.3f", (double)now->time_ns * 1e-9);
    print_rate(&before->cycles, &now->cycles, seconds * 1e9);
    print_rate(&before->instructions, &now->instructions, seconds * 1e9);
    print_rate(&before->memory, &now->memory, seconds * 1e9);
    print_rate(&before->energy, &now->energy, seconds);
    putchar('\n');
    fflush(stdout);
}

/* Starts the command so that it waits for a byte on *go. Its process id, or -1. */
static pid_t start_command(char** command, int* go) {
    int ends[2];
    char byte;
    if (pipe(ends) != 0)
        return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        close(ends[1]);
        if (read(ends[0], &byte, 1) == 1) {
            close(ends[0]);
            execvp(command[0], command);
        }
        _exit(EXIT_NO_START);
    }
    close(ends[0]);
    *go = ends[1];
    return pid;
}

/* Waits for the end of the command, at most for an interval. 1 once it ended. */
static int ended_within(pid_t pid, double seconds, int* status) {
    const struct timespec nap = {0, 1000000};
    for (double waited = 0; waited < seconds; waited += 1e-3) {
        if (waitpid(pid, status, WNOHANG) == pid)
            return 1;
        nanosleep(&nap, NULL);
    }
    return 0;
}

static int measure(const struct run* run, easnode_meter* meter, pid_t pid, int go) {
    easnode_reading last;
    easnode_reading now;
    int status = 0;
    memset(&last, 0, sizeof last);
    memset(&now, 0, sizeof now);
    last.size = now.size = sizeof now;
    easnode_meter_read(meter, &last);
    const easnode_reading first = last;
    if (write(go, "", 1) != 1)
        perror("node_meter: the command did not start");
    close(go);
    printf("%9s %12s %12s %12s %12s\n", "s", "Gcycles/s", "Ginstr/s", "GB/s", "W");
    for (int ended = 0; !ended;) {
        ended = ended_within(pid, run->interval, &status);
        if (easnode_meter_read(meter, &now) == EASNODE_OK)
            print_line(&last, &now);
        last = now;
    }
    printf("in all: ");
    print_growth(&first.cycles, &now.cycles, 0, "cycles, ");
    print_growth(&first.instructions, &now.instructions, 0, "instructions, ");
    print_growth(&first.memory, &now.memory, 0, "bytes, ");
    print_growth(&first.energy, &now.energy, 3, "J\n");
    print_figure("cycles", &now.cycles);
    print_figure("instructions", &now.instructions);
    print_figure("memory", &now.memory);
    print_figure("energy", &now.energy);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/* What became of each source, as an administrator wants to know. */
static void print_sources(const easnode_meter* meter) {
    static const char* const states[] = {"serves", "refused", "not tried", "not wanted"};
    static const char* const names[] = {"core", "", "memory", "energy"};
    easnode_source source;
    source.size = sizeof source;
    for (int figure = 0; figure < EASNODE_FIGURES; ++figure) {
        if (figure == EASNODE_INSTRUCTIONS)
            continue; /* from the same source as the cycles */
        for (size_t i = 0; easnode_meter_source(meter, figure, i, &source) == EASNODE_OK; ++i)
            printf("%-7s %-12s %-10s %s\n", names[figure], source.name, states[source.state],
                   source.text);
    }
}

static int run_measured(const struct run* run) {
    int go = -1;
    signal(SIGPIPE, SIG_IGN);
    const pid_t pid = start_command(run->command, &go);
    if (pid < 0) {
        perror("node_meter: cannot start a process");
        return EXIT_NO_START;
    }
    easnode_meter_options options;
    easnode_meter* meter = NULL;
    memset(&options, 0, sizeof options);
    options.size = sizeof options;
    options.process = run->of_process ? pid : 0;
    options.allow_estimate = run->estimate;
    const int code = easnode_meter_open(&options, &meter);
    if (code != EASNODE_OK) {
        fprintf(stderr, "node_meter: %s\n", easnode_error_text(code));
        close(go); /* without the byte the child ends by itself */
        waitpid(pid, NULL, 0);
        return EXIT_NO_START;
    }
    print_sources(meter);
    const int status = measure(run, meter, pid, go);
    easnode_meter_close(meter);
    return status;
}

int main(int argc, char** argv) {
    struct run run = {1, 0, 0, NULL};
    for (int option; (option = getopt(argc, argv, "+i:pe")) != -1;) {
        if (option == 'i')
            run.interval = strtod(optarg, NULL);
        run.of_process |= option == 'p';
        run.estimate |= option == 'e';
        if (option == '?')
            return 2;
    }
    run.command = argv + optind;
    if (run.command[0] == NULL || !(run.interval >= 0.01 && run.interval <= 3600)) {
        fprintf(stderr, "usage: node_meter [-i SECONDS] [-p] [-e] [--] COMMAND [ARGUMENT...]\n");
        return 2;
    }
    return run_measured(&run);
}

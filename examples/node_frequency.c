/*
 * node_frequency.c - runs a command at a processor frequency, and says whether it really ran at it.
 *
 * usage: node_frequency [-f KHZ] [-c CPUS] [-s FILE] [--] [COMMAND [ARGUMENT...]]
 *        node_frequency -r FILE
 *
 *   -f KHZ    fix the CPUs at this frequency while the command runs
 *   -c CPUS   "0-3,8"; without it, all that are online
 *   -s FILE   store there what was set before, as long as it is not given back
 *   -r FILE   give back what FILE holds, after a crash
 *
 * Without a command it shows what the node offers. The exit status is that of the command; 125 when
 * it was not run.
 *
 * Build: cc -std=c11 node_frequency.c $(pkg-config --cflags --libs easnode)
 */
#define _GNU_SOURCE
#include <eas/node.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { EXIT_NO_START = 125, MOST_STEPS = 256 };

struct request {
    int khz;
    const char* cpus;
    const char* store;
    const char* give_back;
    char** command;
};

static char saved[EASNODE_FREQUENCY_TEXT_SIZE];

static int complain(const char* what, const easnode_problem* problem) {
    fprintf(stderr, "node_frequency: %s: %s: %s\n", what, easnode_error_text(problem->code),
            problem->text);
    if (problem->path[0] != '\0')
        fprintf(stderr, "  %s%s%s\n", problem->path, problem->error != 0 ? ": " : "",
                problem->error != 0 ? strerror(problem->error) : "");
    return EXIT_NO_START;
}

static int show_node(const easnode_frequency* frequency) {
    static const char* const methods[] = {"cannot be set", "governor userspace", "limits"};
    static const char* const switches[] = {"no switch", "off", "on", "mixed"};
    easnode_frequency_info info;
    easnode_step steps[MOST_STEPS];
    size_t count = 0;
    memset(&info, 0, sizeof info);
    info.size = sizeof info;
    easnode_frequency_describe(frequency, &info);
    easnode_frequency_steps(frequency, steps, MOST_STEPS, &count);
    printf("%d CPUs, %d clocks, driver %s, set by: %s, turbo %s\n", info.cpus, info.policies,
           info.driver[0] != '\0' ? info.driver : "none", methods[info.method],
           switches[info.turbo]);
    printf("nominal %d kHz, range %d to %d kHz\n", info.nominal_khz, info.lowest_khz,
           info.highest_khz);
    for (size_t i = 0; i < count && i < MOST_STEPS; ++i)
        printf("%d%s\n", steps[i].khz, steps[i].turbo ? " turbo" : "");
    return EXIT_SUCCESS;
}

/* Writes the text under another name first: half of it would be of no use. */
static int store_text(const char* path, const char* text) {
    char draft[4096];
    if (snprintf(draft, sizeof draft, "%s.new", path) >= (int)sizeof draft)
        return -1;
    FILE* file = fopen(draft, "we");
    if (file == NULL)
        return -1;
    const int written = fputs(text, file) >= 0 && fflush(file) == 0 && fsync(fileno(file)) == 0;
    return fclose(file) == 0 && written ? rename(draft, path) : -1;
}

static int give_back_stored(const char* path) {
    easnode_problem problem;
    problem.size = sizeof problem;
    FILE* file = fopen(path, "re");
    if (file == NULL) {
        perror(path);
        return EXIT_NO_START;
    }
    const size_t length = fread(saved, 1, sizeof saved, file);
    fclose(file);
    const int code = easnode_frequency_restore(NULL, saved, length, &problem);
    if (code != EASNODE_OK)
        complain("giving back", &problem);
    /* Settings of another boot went with it: that text has no use any more. */
    if (code == EASNODE_OK || code == EASNODE_MOVED || code == EASNODE_OTHER_NODE)
        return unlink(path) == 0 ? EXIT_SUCCESS : EXIT_NO_START;
    return EXIT_NO_START;
}

static int run_command(char** command) {
    int status = 0;
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGINT, SIG_DFL);
        signal(SIGTERM, SIG_DFL);
        execvp(command[0], command);
        _exit(EXIT_NO_START);
    }
    while (pid > 0 && waitpid(pid, &status, 0) < 0) {
    }
    if (pid < 0)
        return EXIT_NO_START;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void print_clock(const easnode_clock* clock) {
    static const char* const verdicts[] = {"cannot tell", "ran at", "did not run at"};
    fprintf(stderr, "node_frequency: %s %d kHz", verdicts[clock->verdict], clock->asked_khz);
    if (clock->mean_khz > 0)
        fprintf(stderr, ": mean %d, slowest %d (cpu%d), fastest %d (cpu%d), by %s", clock->mean_khz,
                clock->slowest_khz, clock->slowest_cpu, clock->fastest_khz, clock->fastest_cpu,
                clock->source);
    fprintf(stderr, "%s%s\n", clock->text[0] != '\0' ? ": " : "", clock->text);
}

/* Fixes the frequency, runs the command, gives back in any case. */
static int run_at(easnode_frequency* frequency, const struct request* request) {
    easnode_problem problem;
    easnode_frequency_check* check = NULL;
    easnode_clock clock;
    size_t length = 0;
    memset(&clock, 0, sizeof clock);
    problem.size = sizeof problem;
    clock.size = sizeof clock;
    if (easnode_frequency_save(frequency, request->khz, saved, sizeof saved, &length, &problem) !=
        EASNODE_OK)
        return complain("looking", &problem);
    if (request->store != NULL && store_text(request->store, saved) != 0) {
        perror(request->store);
        return EXIT_NO_START;
    }
    signal(SIGINT, SIG_IGN); /* the command ends by it; this program has something to give back */
    signal(SIGTERM, SIG_IGN);
    int result = EXIT_NO_START;
    if (easnode_frequency_set(frequency, request->khz, &problem) == EASNODE_OK) {
        easnode_frequency_check_begin(frequency, request->khz, &check);
        result = run_command(request->command);
        easnode_frequency_check_end(check, &clock);
        print_clock(&clock);
    } else {
        complain("setting", &problem);
    }
    const int code = easnode_frequency_restore(frequency, saved, length, &problem);
    if (code != EASNODE_OK)
        complain("giving back", &problem);
    if (request->store != NULL && (code == EASNODE_OK || code == EASNODE_MOVED))
        unlink(request->store);
    return result;
}

int main(int argc, char** argv) {
    struct request request = {0, NULL, NULL, NULL, NULL};
    int option;
    while ((option = getopt(argc, argv, "+f:c:s:r:")) != -1) {
        if (option == 'f')
            request.khz = atoi(optarg);
        else if (option == 'c')
            request.cpus = optarg;
        else if (option == 's')
            request.store = optarg;
        else if (option == 'r')
            request.give_back = optarg;
        else
            return EXIT_NO_START;
    }
    request.command = argv + optind;
    if (request.give_back != NULL)
        return give_back_stored(request.give_back);
    easnode_frequency* frequency = NULL;
    easnode_problem problem;
    problem.size = sizeof problem;
    if (easnode_frequency_open(request.cpus, &frequency, &problem) != EASNODE_OK)
        return complain("opening", &problem);
    const int result = request.command[0] == NULL || request.khz <= 0 ? show_node(frequency)
                                                                      : run_at(frequency, &request);
    easnode_frequency_close(frequency);
    return result;
}

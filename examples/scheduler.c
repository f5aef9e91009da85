/*
 * scheduler.c - plays the batch scheduler: from the counters of past jobs to selected frequencies.
 *
 * It initialises the library for a cluster, turns each job of a CSV file into a tag, prints what
 * the tag predicts, has a frequency selected under both policies, asks for nonsense to show how
 * that is refused, and removes its tags again. It needs nothing but <eas/interface.h> and
 * libeas.so.
 */
#define _DEFAULT_SOURCE

#include <eas/interface.h>

#include <errno.h>
#include <getopt.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { MAX_JOBS = 64, NAME_SIZE = 64 };

struct job {
    char name[NAME_SIZE];
    char user[NAME_SIZE];
    char tag[NAME_SIZE];
    char id[NAME_SIZE];
    double counters[3]; /* cycles, instructions, bytes of memory traffic */
    int seconds;
    double watts;
};

struct settings {
    char* cluster;
    int default_khz;
    char* thresholds;
    char* jobs;
    char* shown_job;
    int show_all;
    int keep_tags;
    int before_initialisation; /* how a request was answered that came too early */
};

struct selection {
    int khz;
    double time_change;
};

static char minimize_energy[] = "minimize_energy";
static char minimize_time[] = "minimize_time";
enum function { INITIALIZE, GENERATE, QUERY, REMOVE, SELECT };

/* The same code means different things from different functions. */
static const char* reason(enum function function, int code) {
    static const char* const names[][6] = {
        /* code 0, -1, ... -5 */
        [INITIALIZE] = {"done", "bad argument", "no connection to the database",
                        "no coefficients for this cluster and default frequency",
                        "the threshold file is not valid",
                        "the threshold file has no entry, or is missing"},
        [GENERATE] = {"done", "bad argument", "no connection to the database", "not initialised",
                      "the figures allow no prediction", "the database refused the tag"},
        [QUERY] = {"done", "bad argument", "no connection to the database", "not initialised",
                   "the query failed", "?"},
        [REMOVE] = {"done", "bad argument", "no connection to the database", "not initialised",
                    "the removal failed", "?"},
        [SELECT] = {"done", "bad argument or unknown policy", "no connection to the database",
                    "not initialised", "not exactly one such tag", "?"},
    };
    if (function == GENERATE && code == EAS_TAG_EXISTS) {
        return "this user has a tag of that name already";
    }
    return code <= 0 && code > -6 ? names[function][-code] : "?";
}

static bool succeeded(const char* what, const char* name, enum function function, int code) {
    if (code != EAS_OK) {
        fprintf(stderr, "scheduler: %s %s: %s (%d)\n", what, name, reason(function, code), code);
    }
    return code == EAS_OK;
}

/* Splits off the text before the next comma; false when there is none or it does not fit. */
static bool take_text(char** rest, char* field) {
    char* text = strsep(rest, ",");
    if (text == NULL || *text == '\0' || strlen(text) >= NAME_SIZE) {
        return false;
    }
    strcpy(field, text);
    return true;
}

static bool take_number(char** rest, double* number) {
    char text[NAME_SIZE];
    char* end = text;
    if (!take_text(rest, text)) {
        return false;
    }
    *number = strtod(text, &end);
    return *end == '\0' && *number >= 0.0;
}

/* name,user,tag,job_id,cycles,instructions,memory_bytes,elapsed_s,power_w */
static bool parse_job(char* line, struct job* job) {
    double seconds = 0.0;
    line[strcspn(line, "\r\n")] = '\0';
    if (!take_text(&line, job->name) || !take_text(&line, job->user) ||
        !take_text(&line, job->tag) || !take_text(&line, job->id)) {
        return false;
    }
    for (int i = 0; i < 3; i++) {
        if (!take_number(&line, &job->counters[i])) {
            return false;
        }
    }
    if (!take_number(&line, &seconds) || !take_number(&line, &job->watts) || seconds > 1e9) {
        return false;
    }
    job->seconds = (int)seconds;
    return line == NULL;
}

/* Returns how many jobs were read, -1 after a message. */
static int read_jobs(const char* path, struct job* jobs) {
    char line[1024];
    int count = 0;
    FILE* file = fopen(path, "re");
    if (file == NULL) {
        fprintf(stderr, "scheduler: %s: %s\n", path, strerror(errno));
        return -1;
    }
    for (int number = 1; fgets(line, sizeof line, file) != NULL; number++) {
        if (number == 1 || line[0] == '#' || line[0] == '\n') {
            continue;
        }
        if (count == MAX_JOBS || !parse_job(line, &jobs[count])) {
            fprintf(stderr, "scheduler: %s:%d: %s\n", path, number,
                    count == MAX_JOBS ? "too many jobs" : "not a job");
            count = -1;
            break;
        }
        count++;
    }
    fclose(file);
    return count;
}

/* What eas_query_tag handed out belongs to the caller, block by block. */
static void free_tags(energyPolicyTag_t* tags, int count) {
    for (int i = 0; i < count; i++) {
        free(tags[i].energy_tag_name);
        free(tags[i].job_id);
        free(tags[i].user_name);
        free(tags[i].cluster_name);
        free(tags[i].frequencies);
        free(tags[i].predict_power);
        free(tags[i].energy_saving_pct);
        free(tags[i].predict_elapse_time);
        free(tags[i].perf_degrad_pct);
    }
    free(tags);
}

static void print_predictions(const energyPolicyTag_t* tag, const struct job* job, int energy_khz,
                              int time_khz) {
    printf("\n%s: job %s of %s, tag \"%s\", %d s at %.1f W\n", job->name, job->id, job->user,
           job->tag, job->seconds, job->watts);
    printf("%7s %9s %12s %9s %11s\n", "GHz", "power W", "run time s", "time %", "energy %");
    for (int i = 0; i < tag->num_freq; i++) {
        const int khz = tag->frequencies[i];
        printf("%7.2f %9.1f %12d %+9.1f %+11.1f%s%s%s\n", khz / 1e6, tag->predict_power[i],
               tag->predict_elapse_time[i], tag->perf_degrad_pct[i] * 100.0,
               tag->energy_saving_pct[i] * 100.0, khz == tag->default_frequency ? "  measured" : "",
               khz == energy_khz ? "  <- minimize_energy" : "",
               khz == time_khz ? "  <- minimize_time" : "");
    }
}

static bool select_for(const struct settings* settings, struct job* job, char* policy,
                       struct selection* selection) {
    const int code =
        eas_auto_select_frequency(settings->cluster, settings->default_khz, job->user, job->tag,
                                  policy, &selection->khz, &selection->time_change);
    return succeeded("select for", job->name, SELECT, code);
}

/* The predicted change of the energy, in percent. */
static double energy_change(const energyPolicyTag_t* tag, int khz) {
    for (int i = 0; i < tag->num_freq; i++) {
        if (tag->frequencies[i] == khz) {
            return tag->energy_saving_pct[i] * 100.0;
        }
    }
    return 0.0;
}

static void print_selections(const energyPolicyTag_t* tag, const char* name,
                             const struct selection* energy, const struct selection* time) {
    printf("%-20s  %-8s  %11.2f GHz %+9.1f %+7.1f %10.2f GHz %+9.1f %+7.1f\n", name,
           tag->energy_tag_name, energy->khz / 1e6, energy_change(tag, energy->khz),
           energy->time_change * 100.0, time->khz / 1e6, energy_change(tag, time->khz),
           time->time_change * 100.0);
}

/* All that is predicted for a job, or what is selected for it on one line. */
static bool show_job(const struct settings* settings, struct job* job, bool whole) {
    int count = 0;
    energyPolicyTag_t* tags = NULL;
    struct selection energy = {0};
    struct selection time = {0};
    const int code =
        eas_query_tag(settings->cluster, settings->default_khz, job->user, job->tag, &count, &tags);
    if (!succeeded("query", job->name, QUERY, code)) {
        return false;
    }
    const bool selected = count == 1 && select_for(settings, job, minimize_energy, &energy) &&
                          select_for(settings, job, minimize_time, &time);
    if (selected && whole) {
        print_predictions(&tags[0], job, energy.khz, time.khz);
    } else if (selected) {
        print_selections(&tags[0], job->name, &energy, &time);
    }
    free_tags(tags, count);
    return selected;
}

/* The jobs that are shown whole, or the others. */
static bool show_jobs(const struct settings* settings, struct job* jobs, int count, bool whole) {
    for (int i = 0; i < count; i++) {
        const bool is_whole = settings->show_all || strcmp(jobs[i].name, settings->shown_job) == 0;
        if (is_whole == whole && !show_job(settings, &jobs[i], whole)) {
            return false;
        }
    }
    return true;
}

static int generate(const struct settings* settings, struct job* job) {
    return eas_generate_tag(settings->cluster, settings->default_khz, job->user, job->tag,
                            job->counters, job->id, job->seconds, job->watts);
}

/* Prints one refusal; false when the library answered something else. */
static bool refused(const char* request, enum function function, int code, int expected) {
    printf("   %-48s %2d  %s\n", request, code, reason(function, code));
    return code == expected;
}

/* Each of these must be refused, and leave nothing behind. `job` has a tag already. */
static bool show_refusals(const struct settings* settings, const struct job* job) {
    struct job asked = *job;
    int khz = 0;
    int count = 0;
    double change = 0.0;
    energyPolicyTag_t* tags = NULL;
    printf("\nRefused\n");
    bool good = refused("generate before the library is initialised", GENERATE,
                        settings->before_initialisation, EAS_NOT_INITIALIZED);
    good &=
        refused("generate a tag that exists", GENERATE, generate(settings, &asked), EAS_TAG_EXISTS);

    strcpy(asked.tag, "idle");
    asked.counters[1] = 0.0;
    good &= refused("generate from a job that executed no instruction", GENERATE,
                    generate(settings, &asked), EAS_TAG_NOT_AVAILABLE);
    good &= refused("select for a tag that nobody made", SELECT,
                    eas_auto_select_frequency(settings->cluster, settings->default_khz, asked.user,
                                              asked.tag, minimize_energy, &khz, &change),
                    EAS_NO_UNIQUE_TAG);
    char policy[] = "Minimize_Energy";
    good &= refused("select under the policy \"Minimize_Energy\"", SELECT,
                    eas_auto_select_frequency(settings->cluster, settings->default_khz, asked.user,
                                              asked.tag, policy, &khz, &change),
                    EAS_BAD_ARGUMENT);
    char crafted[] = "x\" or \"1\"=\"1";
    good &= refused(
        "query a name that would match everybody's tags", QUERY,
        eas_query_tag(settings->cluster, settings->default_khz, crafted, NULL, &count, &tags),
        EAS_QUERY_FAILED);
    free_tags(tags, count);

    struct settings other = *settings;
    other.default_khz += 1;
    good &= refused("generate for another default frequency", GENERATE, generate(&other, &asked),
                    EAS_BAD_ARGUMENT);
    return good;
}

static bool remove_tags(const struct settings* settings, struct job* job, int* removed) {
    int count = 0;
    char** users = NULL;
    char** names = NULL;
    const int code = eas_remove_tag(settings->cluster, settings->default_khz, job->user, job->tag,
                                    &count, &users, &names);
    if (!succeeded("remove the tag of", job->name, REMOVE, code)) {
        return false;
    }
    for (int i = 0; i < count; i++) {
        free(users[i]);
        free(names[i]);
    }
    free(users);
    free(names);
    *removed += count;
    return true;
}

static bool run(const struct settings* settings, struct job* jobs, int count) {
    int generated = 0;
    int removed = 0;
    bool good = true;
    printf("Cluster \"%s\", default frequency %.2f GHz, %d jobs\n", settings->cluster,
           settings->default_khz / 1e6, count);
    while (good && generated < count) {
        struct job* job = &jobs[generated];
        good = succeeded("generate a tag for", job->name, GENERATE, generate(settings, job));
        generated += good ? 1 : 0;
    }
    good = good && show_jobs(settings, jobs, count, true);
    if (!settings->show_all) {
        printf("\n%-20s  %-8s  %15s %9s %7s %14s %9s %7s\n", "Other jobs", "Tag", "minimize_energy",
               "energy %", "time %", "minimize_time", "energy %", "time %");
    }
    good = good && show_jobs(settings, jobs, count, false);
    good = good && show_refusals(settings, &jobs[0]);
    /* Whatever went wrong, the tags that were made go away again. */
    for (int i = 0; i < generated && !settings->keep_tags; i++) {
        good &= remove_tags(settings, &jobs[i], &removed);
    }
    printf("\n%d tags generated, %d %s\n", generated, settings->keep_tags ? generated : removed,
           settings->keep_tags ? "kept" : "removed");
    return good;
}

static void print_help(FILE* out) {
    fprintf(out,
            "usage: scheduler [options]\n"
            "Generates, shows, uses and removes the tags of past jobs.\n\n"
            "  --cluster NAME     cluster, as in the coefficient table (sample)\n"
            "  --frequency KHZ    default frequency, at which the jobs ran (2300000)\n"
            "  --thresholds FILE  performance thresholds (thresholds.conf)\n"
            "  --jobs FILE        measured jobs, CSV (jobs.csv)\n"
            "  --show NAME        the job whose predictions are all shown (the first)\n"
            "  --all              show those of every job\n"
            "  --keep-tags        do not remove the tags at the end\n"
            "  --help             print this\n\n"
            "Exit code: 0 all went as it should, 1 it did not, 2 wrong usage.\n");
}

/* Returns the exit code with which to stop at once, -1 to go on. */
static int parse_options(int argc, char** argv, struct settings* settings) {
    char* frequency = NULL;
    char** const values[] = {&settings->cluster, &frequency, &settings->thresholds, &settings->jobs,
                             &settings->shown_job};
    const struct option options[] = {
        {"cluster", required_argument, NULL, 0},
        {"frequency", required_argument, NULL, 0},
        {"thresholds", required_argument, NULL, 0},
        {"jobs", required_argument, NULL, 0},
        {"show", required_argument, NULL, 0},
        {"all", no_argument, &settings->show_all, true},
        {"keep-tags", no_argument, &settings->keep_tags, true},
        {"help", no_argument, NULL, 'h'},
        {NULL, 0, NULL, 0},
    };
    int option = 0;
    int index = 0;
    while ((option = getopt_long(argc, argv, "h", options, &index)) == 0) {
        if (optarg != NULL) {
            *values[index] = optarg;
        }
    }
    if (option != -1 || optind != argc) {
        print_help(option == 'h' ? stdout : stderr);
        return option == 'h' ? 0 : 2;
    }
    settings->default_khz = frequency != NULL ? atoi(frequency) : settings->default_khz;
    return -1;
}

int main(int argc, char** argv) {
    static char cluster[] = "sample";
    static char thresholds[] = "thresholds.conf";
    static char jobs_file[] = "jobs.csv";
    static struct job jobs[MAX_JOBS];
    struct settings settings = {cluster, 2300000, thresholds, jobs_file, jobs[0].name, 0, 0, 0};
    const int exit_code = parse_options(argc, argv, &settings);
    if (exit_code >= 0) {
        return exit_code;
    }
    const int count = read_jobs(settings.jobs, jobs);
    if (count < 1) {
        return EXIT_FAILURE;
    }
    settings.before_initialisation = generate(&settings, &jobs[0]);
    if (!succeeded("initialise for", settings.cluster, INITIALIZE,
                   eas_initialize(settings.cluster, settings.default_khz, settings.thresholds))) {
        return EXIT_FAILURE;
    }
    return run(&settings, jobs, count) ? EXIT_SUCCESS : EXIT_FAILURE;
}

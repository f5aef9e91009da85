/*
 * interface.h - the scheduler's interface of libeas (C11 and C++17).
 *
 * A batch scheduler turns the counters of a job that ran at the cluster's default frequency into an
 * energy policy tag, and for the next job that names the tag has a processor frequency selected.
 *
 * Conventions of every function here
 *   Return value   0 on success, else a negative code of enum eas_return_code; no other value.
 *                  Nothing is thrown. A thread's cancellation acts after the call, or while the
 *                  call waits for another attempt to connect, and leaves nothing behind.
 *   Texts          NUL-terminated; read, never changed or kept. Lengths that are stored: cluster
 *                  name 40 bytes, user and tag name 256 each, job id 1024; longer ones are cut.
 *   Frequencies    kHz. Times: seconds. Power: watts. Changes: fractions (0.05 is 5 %).
 *   Ownership      What a function hands out belongs to the caller, who frees it with free(3).
 *   Threads        eas_initialize must not run beside any other call. The four others may run
 *                  beside each other from any thread; each uses a connection of its own. The
 *                  process may exit meanwhile.
 *   Privileges     None. The process needs read access to the ODBC configuration and to the
 *                  threshold file, and what the database asks of it.
 *   Database       The ODBC driver manager is opened at run time as "libodbc.so"; the data source
 *                  is named in /etc/zemra/cfgloc ("mysql:dbname=NAME"), else it is "easdb".
 *   Commits        A tag is stored or removed as a whole or not at all. A commit that fails is not
 *                  reported: the call returns EAS_OK, and the database is as it was. On SQLite
 *                  that happens while another program reads for longer than the data source's
 *                  Timeout, or when the disk is full; on a server when it goes down at that
 *                  moment; on servers that replicate also when a conflict with what another one
 *                  stored shows only then. eas_query_tag says what is there.
 *   End of the     A driver that keeps asking for patience is tried 20 times, a second apart; then
 *   process        the process ends with abort(3), unless the environment variable
 *                  ABORT_ON_DB_FAILED is NO. With DEBUG_THRESHOLD set, a debug file that cannot be
 *                  opened ends it, too. An ordinary refusal to connect is EAS_NO_CONNECTION.
 *
 * Names in a query or removal: an empty one matches all. A cluster, user or tag name that holds a
 * double quote, or ends in a backslash that no other backslash escapes, makes the call fail with
 * -4: no other name that a user chooses can widen what is read or removed. On tables that compare
 * without case, against the schema, rows that bear other names are passed over, and a removal that
 * would take them along fails with -4. In names that are stored a percent sign is read as by
 * printf: write "%%" for one; any other use keeps its characters.
 */
#ifndef EAS_INTERFACE_H
#define EAS_INTERFACE_H

#include <stdint.h>

#if defined(__GNUC__)
#define EAS_API __attribute__((visibility("default")))
#else
#define EAS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What the functions return. Some values mean different things from different functions. */
enum eas_return_code {
    EAS_OK = 0,

    /* Every function: an argument is null or out of range; eas_generate_tag: or empty. */
    EAS_BAD_ARGUMENT = -1,
    /* Every function: no connection to the database (eas_initialize: or no driver manager). */
    EAS_NO_CONNECTION = -2,
    /* The four working functions: eas_initialize has not succeeded. */
    EAS_NOT_INITIALIZED = -3,

    /* eas_initialize */
    EAS_NO_COEFFICIENTS = -3,          /* none readable for the cluster and default frequency */
    EAS_BAD_THRESHOLD_FILE = -4,       /* the threshold file is not valid */
    EAS_THRESHOLDS_COMMENTED_OUT = -5, /* every entry of the threshold file is a
                                          comment; also where the file is empty or missing */

    /* eas_generate_tag */
    EAS_TAG_NOT_AVAILABLE = -4, /* the figures allow no prediction */
    EAS_STORE_FAILED = -5,      /* the database refused the tag; nothing of it is stored */
    EAS_TAG_EXISTS = -6,        /* for this cluster, default frequency and user; a name that cannot
                                   be looked up is refused by the tables instead (-5) */

    /* eas_query_tag */
    EAS_QUERY_FAILED = -4, /* or no memory for the result */
    /* eas_remove_tag */
    EAS_REMOVE_FAILED = -4, /* nothing was removed */
    /* eas_auto_select_frequency */
    EAS_NO_UNIQUE_TAG = -4 /* not exactly one such tag */
};

/*
 * One energy policy tag: what a job is predicted to do at each frequency.
 *
 * Entry i of each array belongs to frequencies[i]. These ascend where the tables have the keys that
 * ship with the library; otherwise they come in the order of the database. The caller owns the four
 * strings and five arrays, each a block of its own. The arrays are never null; a string is null
 * where memory was too short for its copy.
 */
typedef struct energyPolicyTag {
    char* energy_tag_name;        /* name of the tag */
    char* job_id;                 /* the job (step) that it was generated from */
    char* user_name;              /* its owner */
    char* cluster_name;           /* the cluster it belongs to */
    int32_t default_frequency;    /* kHz; the predictions are relative to it */
    int32_t num_freq;             /* entries in each of the five arrays */
    int32_t* frequencies;         /* kHz */
    double* predict_power;        /* W, mean power of a node */
    double* energy_saving_pct;    /* energy change, a fraction; negative saves energy */
    int32_t* predict_elapse_time; /* s, run time */
    double* perf_degrad_pct;      /* run-time change, a fraction; positive is slower */
} energyPolicyTag, energyPolicyTag_t;

/*
 * Initialises the library for one cluster, or for another one.
 *
 * Whatever was initialised before is discarded first, even when the call then fails. Loads the
 * driver manager, reads the cluster's coefficients and the threshold file.
 *
 *   cluster_name       as in the coefficient table
 *   default_frequency  kHz, above 0: the frequency at which jobs are measured
 *   threshold_file     path of the site's performance thresholds (see eas-thresholds(5))
 *
 * Returns EAS_OK, EAS_BAD_ARGUMENT, EAS_NO_CONNECTION, EAS_NO_COEFFICIENTS,
 * EAS_BAD_THRESHOLD_FILE or EAS_THRESHOLDS_COMMENTED_OUT.
 * Not thread-safe: no other function of this header may run at the same time.
 */
EAS_API int eas_initialize(char* cluster_name, int default_frequency, char* threshold_file);

/*
 * Predicts a job at every frequency of the cluster and stores the result as a tag.
 *
 *   cluster_name, user_name, tag_name, job_id   not null, not empty; the prediction is that of
 *                      the initialised cluster, whatever cluster the tag is stored under
 *   default_frequency  kHz; that of the loaded coefficients
 *   hw_counters        three doubles: processor cycles, instructions, bytes of memory traffic
 *   time_elapsed       s, above 0: run time of the job at the default frequency
 *   power_consumed     W, at least 0.0000001: mean power of a node
 *
 * All rows of the tag are stored, or none; a commit that fails is not reported (see above). When
 * two schedulers generate the same tag at the same time on one database server, one of them gets
 * EAS_TAG_EXISTS or EAS_STORE_FAILED. On several servers that replicate, one of the two tags is
 * kept, but both calls may return EAS_OK.
 *
 * Returns EAS_OK, EAS_BAD_ARGUMENT (also for another default frequency than the loaded one),
 * EAS_NO_CONNECTION, EAS_NOT_INITIALIZED, EAS_TAG_NOT_AVAILABLE, EAS_STORE_FAILED or
 * EAS_TAG_EXISTS. Thread-safe beside the other working functions.
 */
EAS_API int eas_generate_tag(char* cluster_name, int default_frequency, char* user_name,
                             char* tag_name, double* hw_counters, char* job_id, int time_elapsed,
                             double power_consumed);

/*
 * Hands out the stored tags of a cluster and default frequency.
 *
 *   cluster_name          not null; empty matches every cluster
 *   user_name, tag_name   null or empty matches every user, or every tag
 *   num_tags              out: how many were found, 0 on any failure after the argument checks
 *   tags                  out: one block of num_tags records, null when there are none
 *
 * The caller frees, for each record, its four strings and five arrays, then the block.
 *
 * Returns EAS_OK (also for no tag at all), EAS_BAD_ARGUMENT, EAS_NO_CONNECTION,
 * EAS_NOT_INITIALIZED or EAS_QUERY_FAILED. Thread-safe beside the other working functions.
 */
EAS_API int eas_query_tag(char* cluster_name, int default_frequency, char* user_name,
                          char* tag_name, int* num_tags, energyPolicyTag_t** tags);

/*
 * Removes the stored tags of a cluster and default frequency, all that match or none; a commit that
 * fails is not reported (see above).
 *
 *   cluster_name          not null; an empty one removes the tags of every cluster
 *   user_name, tag_name   null or empty matches every user, or every tag
 *   tag_count             out: how many tags were removed; 0 after EAS_REMOVE_FAILED, and after any
 *                         other failure not written
 *   user_list             out: tag_count owners, one per removed tag
 *   tagname_list          out: tag_count names, in the same order
 *
 * The lists have no terminating null entry; with no tag removed both are null. The caller frees
 * every entry and both lists. They are valid only when the call returns EAS_OK.
 *
 * Returns EAS_OK (also for no tag at all), EAS_BAD_ARGUMENT, EAS_NO_CONNECTION,
 * EAS_NOT_INITIALIZED or EAS_REMOVE_FAILED. Thread-safe beside the other working functions.
 */
EAS_API int eas_remove_tag(char* cluster_name, int default_frequency, char* user_name,
                           char* tag_name, int* tag_count, char*** user_list, char*** tagname_list);

/*
 * Selects the frequency for a job from the predictions of its tag.
 *
 *   cluster_name          not null; empty matches every cluster
 *   user_name, tag_name   not null; together they must match exactly one tag (an empty one
 *                         matches all)
 *   energy_policy         "minimize_energy": the frequency, up to the default one, that saves most
 *                         energy within the site's general limit; or "minimize_time": the last row
 * of the tag, which with the keys that ship is the highest frequency, from the default one up, that
 * gains as much time as the site demands of it selected_frequency    out, kHz; the default
 * frequency when no other qualifies time_var              out: expected run-time change, a
 * fraction; 0 for the fall-back
 *
 * On a failure the outputs are not written.
 *
 * Returns EAS_OK, EAS_BAD_ARGUMENT (also for an unknown policy), EAS_NO_CONNECTION,
 * EAS_NOT_INITIALIZED or EAS_NO_UNIQUE_TAG. Thread-safe beside the other working functions.
 */
EAS_API int eas_auto_select_frequency(char* cluster_name, int default_frequency, char* user_name,
                                      char* tag_name, char* energy_policy, int* selected_frequency,
                                      double* time_var);

#ifdef __cplusplus
}
#endif

#endif /* EAS_INTERFACE_H */

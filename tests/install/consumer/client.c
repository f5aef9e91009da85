/* A C client of the installed library: every function links, and the first checks answer. */
#include <eas/interface.h>
#include <stddef.h>
#include <stdio.h>

int main(void) {
    char cluster[] = "c";
    char text[] = "t";
    double counters[3] = {1.0, 1.0, 1.0};
    int number = 0;
    double change = 0.0;
    char** users = NULL;
    char** names = NULL;
    energyPolicyTag_t* tags = NULL;
    const int answers[] = {
        eas_initialize(NULL, 1, text) - EAS_BAD_ARGUMENT,
        eas_generate_tag(cluster, 1, text, text, counters, text, 1, 1.0) - EAS_NOT_INITIALIZED,
        eas_query_tag(cluster, 1, text, text, &number, &tags) - EAS_NOT_INITIALIZED,
        eas_remove_tag(cluster, 1, text, text, &number, &users, &names) - EAS_NOT_INITIALIZED,
        eas_auto_select_frequency(cluster, 1, text, text, text, &number, &change) -
            EAS_BAD_ARGUMENT,
    };
    for (size_t i = 0; i < sizeof answers / sizeof answers[0]; i++) {
        if (answers[i] != 0) {
            fprintf(stderr, "function %zu answers %d too much\n", i, answers[i]);
            return 1;
        }
    }
    return 0;
}

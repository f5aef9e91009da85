/* A program that only loads the library: no header of it, no link against it. */
#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>

static const char* const functions[] = {
    "eas_initialize",      "eas_generate_tag", "eas_query_tag",
    "eas_remove_tag",      "gethwrusage",      "getenrusage",
    "getearusage",         "verify_qpx",       "sysfs_read_file",
    "sysfs_get_one_value", "extract_bits",     "drop_priv_temp",
    "drop_priv_perm",      "restore_priv",     "eas_auto_select_frequency",
};

int main(void) {
    /* Twice: what the first stay left behind must not disturb the second. */
    for (int round = 0; round < 2; round++) {
        void* library = dlopen("libeas.so.1", RTLD_NOW | RTLD_LOCAL);
        if (library == NULL) {
            fprintf(stderr, "%s\n", dlerror());
            return 1;
        }
        for (size_t i = 0; i < sizeof functions / sizeof functions[0]; i++) {
            if (dlsym(library, functions[i]) == NULL) {
                fprintf(stderr, "%s\n", dlerror());
                return 1;
            }
        }
        dlclose(library);
        if (dlopen("libeas.so.1", RTLD_NOW | RTLD_NOLOAD) != NULL) {
            fprintf(stderr, "the library stays loaded after dlclose\n");
            return 1;
        }
    }
    return 0;
}

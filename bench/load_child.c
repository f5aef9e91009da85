/* A process of C only. load_child LIBRARY [EARLIER]: opens EARLIER, if given, then LIBRARY; prints
   how long the second took (ns) and by how much the process's private memory grew (KiB). */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

static double now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e9 + (double)now.tv_nsec;
}

/* Pages of its own: those of a file are shared, also while this process alone maps it. */
static long private_kib(void) {
    char line[256];
    long sum = 0;
    long value = 0;
    FILE* rollup = fopen("/proc/self/smaps_rollup", "r");
    if (rollup == NULL)
        return -1;
    while (fgets(line, sizeof line, rollup) != NULL) {
        if (sscanf(line, "Anonymous: %ld", &value) == 1)
            sum += value;
    }
    fclose(rollup);
    return sum;
}

int main(int argc, char** argv) {
    if (argc < 2 || (argc > 2 && dlopen(argv[2], RTLD_NOW) == NULL))
        return 2;
    private_kib(); /* its own buffers */
    const long before = private_kib();
    const double start = now_ns();
    void* library = dlopen(argv[1], RTLD_NOW);
    const double end = now_ns();
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    printf("%.0f %ld\n", end - start, private_kib() - before);
    return 0;
}

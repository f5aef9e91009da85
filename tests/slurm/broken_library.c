/* A library that cannot be trusted: opening it crashes, or never returns (-DHANGS). */
#include <stdlib.h>
#include <unistd.h>

__attribute__((constructor)) static void misbehave(void) {
#ifdef HANGS
    for (;;) {
        pause();
    }
#else
    abort();
#endif
}

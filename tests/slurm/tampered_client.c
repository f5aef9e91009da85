/* A client's plugin that does not check: it passes what TAMPERED_TAG holds as --energy-tag. On a
   node its prolog and epilog are empty ones. */
#include <slurm/spank.h>
#include <stdlib.h>

#pragma GCC visibility push(default)

SPANK_PLUGIN(tampered, 1)

int slurm_spank_init_post_opt(spank_t spank, int count, char** words) {
    const char* tag = getenv("TAMPERED_TAG");
    (void)count;
    (void)words;
    if (spank_remote(spank) == 0 && tag != NULL) {
        spank_job_control_setenv(spank, "_SLURM_SPANK_OPTION_eas_energy_tag", tag, 1);
    }
    return 0;
}

int slurm_spank_job_prolog(spank_t spank, int count, char** words) {
    (void)spank;
    (void)count;
    (void)words;
    return 0;
}

int slurm_spank_job_epilog(spank_t spank, int count, char** words) {
    return slurm_spank_job_prolog(spank, count, words);
}

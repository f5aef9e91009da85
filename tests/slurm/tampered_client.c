/* A client's plugin that does not check: it passes what TAMPERED_TAG holds as --energy-tag. */
#include <slurm/spank.h>
#include <stdlib.h>

#define VISIBLE __attribute__((visibility("default")))

extern VISIBLE const char plugin_name[];
extern VISIBLE const char plugin_type[];
extern VISIBLE const unsigned int plugin_version;
extern VISIBLE const unsigned int spank_plugin_version;
SPANK_PLUGIN(tampered, 1)

VISIBLE int slurm_spank_init_post_opt(spank_t spank, int count, char** words) {
    const char* tag = getenv("TAMPERED_TAG");
    (void)count;
    (void)words;
    if (spank_remote(spank) == 0 && tag != NULL) {
        spank_job_control_setenv(spank, "_SLURM_SPANK_OPTION_eas_energy_tag", tag, 1);
    }
    return 0;
}

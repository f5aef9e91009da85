// easctl model: the coefficients of a cluster between the text file, the database and the eye.
#include "tools/easctl/Command.h"

namespace easctl {

CLI::App& add_model_commands(CLI::App& app, [[maybe_unused]] Globals& globals) {
    return add_group(app, "model", "the energy model: a cluster's coefficients");
}

}  // namespace easctl

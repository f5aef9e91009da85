// easctl node: what the node's hardware says, for a person. What cannot be read is shown as missing
// or denied, never as 0.
#include "tools/easctl/node/NodeCommands.h"

namespace easctl {

void add_node_commands(CLI::App& app, Globals& globals) {
    CLI::App& node = add_group(app, "node", "this node's hardware: what it is, says and does");
    add_info_command(node, globals);
    add_sensors_command(node, globals);
    add_sample_command(node, globals);
    add_frequency_command(node, globals);
    add_gather_command(node, globals);
}

}  // namespace easctl

// easctl tag: what the scheduler's functions do, for a person.
#include "tools/easctl/cli/Command.h"
#include "tools/easctl/tag/GenerateCommand.h"
#include "tools/easctl/tag/RegenerateCommand.h"
#include "tools/easctl/tag/RemoveCommand.h"
#include "tools/easctl/tag/SelectCommand.h"
#include "tools/easctl/tag/TransferCommands.h"
#include "tools/easctl/tag/VerifyCommand.h"
#include "tools/easctl/tag/ViewCommands.h"

namespace easctl {

void add_tag_commands(CLI::App& app, Globals& globals) {
    CLI::App& group =
        add_group(app, "tag", "energy policy tags: what past jobs are predicted to do");
    add_tag_generate(group, globals);
    add_tag_list(group, globals);
    add_tag_show(group, globals);
    add_tag_select(group, globals);
    add_tag_verify(group, globals);
    add_tag_regenerate(group, globals);
    add_tag_export(group, globals);
    add_tag_import(group, globals);
    add_tag_remove(group, globals);
}

}  // namespace easctl

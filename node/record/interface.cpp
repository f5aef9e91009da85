// The edge of the room "record".
#include "node/Edge.h"
#include "node/record/Record.h"

int easnode_record(int with_host_name, int (*take)(void* context, const easnode_file* file),
                   void* context) {
    using namespace eas::node;
    if (take == nullptr)
        return EASNODE_BAD_ARGUMENT;
    return at_the_edge([&] {
        const bool all = record_node(with_host_name != 0, [&](const RecordedFile& file) {
            const bool good = file.error == 0;
            const easnode_file record{file.path.c_str(),
                                      good ? file.content.data() : nullptr,
                                      good ? file.content.size() : 0,
                                      file.error,
                                      file.mode,
                                      file.is_link ? 1 : 0};
            return take(context, &record) == 0;
        });
        return all ? EASNODE_OK : EASNODE_STOPPED;
    });
}

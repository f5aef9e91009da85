// A C++ client of the installed node library: opens a meter, and gets a reading in which every
// figure is there or says why it is not.
#include <eas/node.h>

#include <cstdio>
#include <initializer_list>

int main() {
    easnode_meter* meter = nullptr;
    easnode_reading reading{};
    reading.size = sizeof reading;
    bool good = easnode_meter_open(nullptr, &meter) == EASNODE_OK &&
                easnode_meter_read(meter, &reading) == EASNODE_OK;
    for (const easnode_figure* figure : {&reading.cycles, &reading.memory, &reading.energy}) {
        const bool missing = figure->quality == EASNODE_MISSING;
        good = good && missing == (figure->reason[0] != '\0');
        std::printf("%s\n", missing ? figure->reason : figure->covers);
    }
    easnode_meter_close(meter);
    return good ? 0 : 1;
}

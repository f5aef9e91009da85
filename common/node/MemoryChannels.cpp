#include "common/node/MemoryChannels.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/UniqueFd.h"

memory_channels mchn[MAX_SOCKETS];

namespace {

// Registers of a channel's configuration page (uncore performance monitoring guide of the
// processor vendor, integrated memory controller: MC_CHy_PCI_PMON_*).
constexpr std::uint64_t BOX_CONTROL = 0xF4;       // 32 bits
constexpr std::uint64_t COUNTER0_CONTROL = 0xD8;  // 32 bits
constexpr std::uint64_t COUNTER1_CONTROL = 0xDC;  // 32 bits
constexpr std::uint64_t COUNTER0 = 0xA0;          // 64 bits: lines read
constexpr std::uint64_t COUNTER1 = 0xA8;          // 64 bits: lines written

struct PciFunction {
    unsigned device;
    unsigned function;
};

// The memory controllers' channels in the order in which they are probed.
constexpr std::array<PciFunction, CHANNELS_PER_SOCKET> CHANNELS = {{
    {16, 4},  // first controller, channel 0
    {16, 5},  // channel 1
    {16, 0},  // channel 2
    {16, 1},  // channel 3
    {30, 4},  // second controller, channel 0
    {30, 5},  // channel 1
    {30, 0},  // channel 2
    {30, 1},  // channel 3
}};

// Bus of a socket's uncore devices.
constexpr unsigned BUS_OF_FIRST_SOCKET = 127;
constexpr unsigned BUS_OF_OTHER_SOCKETS = 255;

struct ChannelStep {
    enum class Kind { write, read };
    Kind kind;
    std::uint64_t offset;
    std::uint32_t value;
};

constexpr ChannelStep PROGRAM[] = {
    {ChannelStep::Kind::write, BOX_CONTROL, 0x10000},  // freeze enable
    {ChannelStep::Kind::write, BOX_CONTROL, 0x10100},  // freeze the counters
    {ChannelStep::Kind::read, BOX_CONTROL, 0},         // the freeze has arrived when it answers
    {ChannelStep::Kind::write, COUNTER0_CONTROL, 0x400000},  // enable
    {ChannelStep::Kind::write, COUNTER0_CONTROL, 0x400304},  // event 0x04, umask 0x03: CAS reads
    {ChannelStep::Kind::write, COUNTER1_CONTROL, 0x400000},  // enable
    {ChannelStep::Kind::write, COUNTER1_CONTROL, 0x400C04},  // event 0x04, umask 0x0C: CAS writes
    {ChannelStep::Kind::write, BOX_CONTROL, 0x10102},        // reset the counters
    {ChannelStep::Kind::write, BOX_CONTROL, 0x10000},        // unfreeze
};

// The ACPI table MCFG: a 36-byte table header, 8 reserved bytes, then the allocations, each of
// which begins with its 64-bit base address.
constexpr const char* MCFG_PATH = "/sys/firmware/acpi/tables/MCFG";
constexpr off_t FIRST_BASE_ADDRESS = 44;

char* failed_mapping() {
    return static_cast<char*>(MAP_FAILED);
}

bool find_config_base(std::uint64_t& base) {
    const eas::UniqueFd table(::open(MCFG_PATH, O_RDONLY | O_CLOEXEC));
    return table.is_open() && eas::read_config_base(table.get(), base);
}

void program_channel(char* page) {
    for (const ChannelStep& step : PROGRAM) {
        if (step.kind == ChannelStep::Kind::write) {
            writemc32(page, step.offset, step.value);
        } else {
            std::uint32_t unused = 0;
            readmc32(page, step.offset, &unused);
        }
    }
}

std::uint64_t sum_of_channels(unsigned socket, std::uint64_t offset) {
    if (socket >= MAX_SOCKETS)
        return 0;
    const memory_channels& channels = mchn[socket];
    std::uint64_t sum = 0;
    for (int i = 0; i < channels.num_channels; ++i) {
        if (channels.mmaddr[i] == nullptr)
            continue;  // given back after a failed set-up
        std::uint64_t value = 0;
        readmc64(channels.mmaddr[i], offset, &value);
        sum += value;
    }
    return sum;
}

}  // namespace

bool eas::read_config_base(int table, std::uint64_t& base) {
    if (::lseek(table, FIRST_BASE_ADDRESS, SEEK_SET) != FIRST_BASE_ADDRESS)
        return false;
    return ::read(table, &base, sizeof base) == sizeof base;
}

char* mmap_memory_channel(unsigned bus, unsigned device, unsigned function, int* fd) {
    *fd = ::open("/dev/mem", O_RDWR | O_CLOEXEC);
    if (*fd < 0) {
        *fd = -1;
        return failed_mapping();
    }
    std::uint64_t base = 0;
    if (!find_config_base(base))
        return failed_mapping();
    const std::uint32_t offset = ((bus * 32 + device) * 8 + function) * 4096;
    const std::uint64_t address = base + offset;
    void* page = ::mmap(nullptr, CHANNEL_PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, *fd,
                        static_cast<off_t>(address));
    return static_cast<char*>(page);
}

int get_memory_channels(unsigned socket) {
    if (socket >= MAX_SOCKETS)
        return 0;
    cleanup_memory_channels(socket);
    memory_channels& channels = mchn[socket];
    channels.num_channels = 0;
    const unsigned bus = socket == 0 ? BUS_OF_FIRST_SOCKET : BUS_OF_OTHER_SOCKETS;
    for (const PciFunction& channel : CHANNELS) {
        int fd = -1;
        char* page = mmap_memory_channel(bus, channel.device, channel.function, &fd);
        eas::UniqueFd memory(fd);
        if (page == failed_mapping())
            continue;
        channels.fd[channels.num_channels] = memory.release();
        channels.mmaddr[channels.num_channels] = page;
        channels.num_channels += 1;
    }
    return channels.num_channels;
}

int program_memory_channels(unsigned s) {
    if (s >= MAX_SOCKETS)
        return 0;
    for (int i = 0; i < mchn[s].num_channels; ++i) {
        if (mchn[s].mmaddr[i] != nullptr)
            program_channel(mchn[s].mmaddr[i]);
    }
    return 0;
}

int readmc32(char* mmaddr, std::uint64_t offset, std::uint32_t* value) {
    *value = *reinterpret_cast<volatile std::uint32_t*>(mmaddr + offset);
    return sizeof *value;
}

int readmc64(char* mmaddr, std::uint64_t offset, std::uint64_t* value) {
    *value = *reinterpret_cast<volatile std::uint64_t*>(mmaddr + offset);
    return sizeof *value;
}

int writemc32(char* mmaddr, std::uint64_t offset, std::uint32_t value) {
    *reinterpret_cast<volatile std::uint32_t*>(mmaddr + offset) = value;
    return sizeof value;
}

std::uint64_t getmcreads(unsigned socket) {
    return sum_of_channels(socket, COUNTER0);
}

std::uint64_t getmcwrites(unsigned socket) {
    return sum_of_channels(socket, COUNTER1);
}

int cleanup_memory_channels(unsigned socket) {
    if (socket >= MAX_SOCKETS)
        return 0;
    memory_channels& channels = mchn[socket];
    for (int i = 0; i < CHANNELS_PER_SOCKET; ++i) {
        char* page = std::exchange(channels.mmaddr[i], nullptr);
        if (page != nullptr)
            ::munmap(page, CHANNEL_PAGE_SIZE);
        eas::UniqueFd closing(std::exchange(channels.fd[i], -1));
    }
    return channels.num_channels;
}

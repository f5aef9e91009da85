#include "common/node/MemoryChannels.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "base/UniqueFd.h"

memory_channels mchn[max_sockets];

namespace {

// Registers of a channel's configuration page (uncore performance monitoring guide of the
// processor vendor, integrated memory controller: MC_CHy_PCI_PMON_*).
constexpr std::uint64_t box_control = 0xF4;       // 32 bits
constexpr std::uint64_t counter0_control = 0xD8;  // 32 bits
constexpr std::uint64_t counter1_control = 0xDC;  // 32 bits
constexpr std::uint64_t counter0 = 0xA0;          // 64 bits: lines read
constexpr std::uint64_t counter1 = 0xA8;          // 64 bits: lines written

struct PciFunction {
    unsigned device;
    unsigned function;
};

// The memory controllers' channels in the order in which they are probed: devices 16 and 30 of the
// uncore (processor vendor's datasheet, volume 2, "Integrated Memory Controller").
constexpr std::array<PciFunction, channels_per_socket> channel_functions = {{
    {16, 4},  // first controller, channel 0
    {16, 5},  // channel 1
    {16, 0},  // channel 2
    {16, 1},  // channel 3
    {30, 4},  // second controller, channel 0
    {30, 5},  // channel 1
    {30, 0},  // channel 2
    {30, 1},  // channel 3
}};

// Bus of a socket's uncore devices, by the convention of firmware for two sockets: the last of the
// first and of the second half of the 256 buses.
constexpr unsigned bus_of_first_socket = 127;
constexpr unsigned bus_of_other_sockets = 255;

struct ChannelStep {
    enum class Kind { write, read };
    Kind kind;
    std::uint64_t offset;
    std::uint32_t value;
};

constexpr ChannelStep channel_program[] = {
    {ChannelStep::Kind::write, box_control, 0x10000},  // freeze enable
    {ChannelStep::Kind::write, box_control, 0x10100},  // freeze the counters
    {ChannelStep::Kind::read, box_control, 0},         // the freeze has arrived when it answers
    {ChannelStep::Kind::write, counter0_control, 0x400000},  // enable
    {ChannelStep::Kind::write, counter0_control, 0x400304},  // event 0x04, umask 0x03: CAS reads
    {ChannelStep::Kind::write, counter1_control, 0x400000},  // enable
    {ChannelStep::Kind::write, counter1_control, 0x400C04},  // event 0x04, umask 0x0C: CAS writes
    {ChannelStep::Kind::write, box_control, 0x10102},        // reset the counters
    {ChannelStep::Kind::write, box_control, 0x10000},        // unfreeze
};

// The ACPI table MCFG: a 36-byte table header, 8 reserved bytes, then the allocations, each of
// which begins with its 64-bit base address.
constexpr const char* mcfg_path = "/sys/firmware/acpi/tables/MCFG";
constexpr off_t first_base_address = 44;

unsigned bus_of(unsigned socket) {
    return socket == 0 ? bus_of_first_socket : bus_of_other_sockets;
}

void unmap(char* page) {
    ::munmap(page, channel_page_size);
}

char* failed_mapping() {
    return static_cast<char*>(MAP_FAILED);
}

bool find_config_base(std::uint64_t& base) {
    const eas::UniqueFd table(::open(mcfg_path, O_RDONLY | O_CLOEXEC));
    return table.is_open() && eas::read_config_base(table.get(), base);
}

void program_channel(char* page) {
    for (const ChannelStep& step : channel_program) {
        if (step.kind == ChannelStep::Kind::write) {
            writemc32(page, step.offset, step.value);
        } else {
            std::uint32_t unused = 0;
            readmc32(page, step.offset, &unused);
        }
    }
}

std::uint64_t sum_of_channels(unsigned socket, std::uint64_t offset) {
    if (socket >= max_sockets)
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
    if (::lseek(table, first_base_address, SEEK_SET) != first_base_address)
        return false;
    return ::read(table, &base, sizeof base) == sizeof base;
}

eas::ChannelLook eas::look_at_channel(unsigned socket, unsigned channel) {
    const PciFunction& function = channel_functions[channel % channel_functions.size()];
    int fd = -1;
    errno = 0;
    char* page = mmap_memory_channel(bus_of(socket), function.device, function.function, &fd);
    const UniqueFd memory(fd);
    if (page == failed_mapping())
        return {false, errno, 0, false};
    std::uint32_t vendor = 0, first = 0, second = 0;
    readmc32(page, 0, &vendor);
    readmc32(page, counter0_control, &first);
    readmc32(page, counter1_control, &second);
    unmap(page);
    return {true, 0, static_cast<std::uint16_t>(vendor), first != 0 || second != 0};
}

void eas::reset_memory_channels(unsigned socket) {
    if (socket >= max_sockets)
        return;
    for (char* page : mchn[socket].mmaddr) {
        if (page == nullptr)
            continue;
        writemc32(page, counter0_control, 0);
        writemc32(page, counter1_control, 0);
    }
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
    void* page = ::mmap(nullptr, channel_page_size, PROT_READ | PROT_WRITE, MAP_SHARED, *fd,
                        static_cast<off_t>(address));
    return static_cast<char*>(page);
}

int get_memory_channels(unsigned socket) {
    if (socket >= max_sockets)
        return 0;
    cleanup_memory_channels(socket);
    memory_channels& channels = mchn[socket];
    channels.num_channels = 0;
    const unsigned bus = bus_of(socket);
    for (const PciFunction& channel : channel_functions) {
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
    if (s >= max_sockets)
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
    return sum_of_channels(socket, counter0);
}

std::uint64_t getmcwrites(unsigned socket) {
    return sum_of_channels(socket, counter1);
}

int cleanup_memory_channels(unsigned socket) {
    if (socket >= max_sockets)
        return 0;
    memory_channels& channels = mchn[socket];
    for (int i = 0; i < channels_per_socket; ++i) {
        char* page = std::exchange(channels.mmaddr[i], nullptr);
        if (page != nullptr)
            unmap(page);
        eas::UniqueFd closing(std::exchange(channels.fd[i], -1));
    }
    return channels.num_channels;
}

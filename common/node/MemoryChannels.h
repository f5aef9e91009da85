// Memory traffic from the integrated memory controllers' counters (models 45 and 62): their PCI
// configuration pages, mapped from physical memory. Needs root, /dev/mem and the ACPI table MCFG.
// Process-wide mappings without a lock: one thread samples.
#pragma once

#include <cstdint>

#include "common/node/CpuTopology.h"
#include "common/node/FdSlot.h"

/// Memory channels of a socket.
constexpr int channels_per_socket = 8;
/// Bytes of a PCI function's configuration page.
constexpr int channel_page_size = 4096;

/// The mapped channels of one socket.
struct memory_channels {
    char* mmaddr[channels_per_socket] = {};  ///< configuration page; null: none
    eas::FdSlot fd[channels_per_socket];     ///< the device behind it
    int num_channels = 0;                    ///< entries that were mapped; kept by the clean-up
};

/// By socket index, in the order of appearance.
extern memory_channels mchn[max_sockets];

/// Maps the configuration page of a PCI function. Returns the mapping, or MAP_FAILED; *fd is the
/// open memory device, also after a failure behind its opening (the caller closes it), else -1.
char* mmap_memory_channel(unsigned bus, unsigned device, unsigned function, int* fd);

/// Maps the channels of a socket, giving back what it still held. Returns how many were mapped.
int get_memory_channels(unsigned socket);

/// Programs every mapped channel of a socket to count read and written lines. Returns 0.
int program_memory_channels(unsigned s);

/// Loads and stores of a mapped page, in program order and of exactly this width; return it.
int readmc32(char* mmaddr, std::uint64_t offset, std::uint32_t* value);
int readmc64(char* mmaddr, std::uint64_t offset, std::uint64_t* value);
int writemc32(char* mmaddr, std::uint64_t offset, std::uint32_t value);

/// Lines read, or written, by the mapped channels of a socket since they were programmed.
std::uint64_t getmcreads(unsigned socket);
std::uint64_t getmcwrites(unsigned socket);

/// Unmaps and closes what a socket holds; mappings are null and descriptors -1 afterwards, so that
/// a second call does nothing. Returns num_channels, which stays.
int cleanup_memory_channels(unsigned socket);

namespace eas {

/// What a channel's page shows.
struct ChannelLook {
    bool mapped;
    int error;             ///< errno, unless it was mapped; 0: the table MCFG is cut short
    std::uint16_t vendor;  ///< of the PCI function; 0x8086 for a memory controller
    bool counts;           ///< an event is chosen: somebody has programmed it
};

/// Maps a channel of a socket, looks at it, and gives it back. Changes nothing.
[[nodiscard]] ChannelLook look_at_channel(unsigned socket, unsigned channel);

/// Takes the events from the mapped channels of a socket again, as after a reset.
void reset_memory_channels(unsigned socket);

/// Where the PCI configuration space begins in physical memory, from the open ACPI table MCFG.
/// False when the table ends before it; `base` is then not meaningful.
bool read_config_base(int table, std::uint64_t& base);

}  // namespace eas

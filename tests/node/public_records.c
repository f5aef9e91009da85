/*
 * The node daemon's header as a C compiler sees it, and the layout of its records, which daemons
 * were built against: a field that moves needs a new major version of the library.
 */
#include <stddef.h>

#include "common/EasMisc.h"

#define FIELD_AT(record, field, position) \
    _Static_assert(offsetof(record, field) == 8 * (position), #record "." #field " moved")

FIELD_AT(hwrusage, cycles, 0);
FIELD_AT(hwrusage, instructions, 1);
FIELD_AT(hwrusage, branch_instructions, 2);
FIELD_AT(hwrusage, branch_misses, 3);
FIELD_AT(hwrusage, cache_references, 4);
FIELD_AT(hwrusage, cache_misses, 5);
FIELD_AT(hwrusage, bus_cycles, 6);
FIELD_AT(hwrusage, membytes_xferred, 7);
FIELD_AT(hwrusage, netbytes_xferred, 8);
FIELD_AT(hwrusage, flops, 9);
FIELD_AT(hwrusage, inlet_temperature, 10);
FIELD_AT(hwrusage, l2_transactions, 11);
FIELD_AT(hwrusage, l1d_all_ref, 12);
FIELD_AT(hwrusage, tstamp, 13);
_Static_assert(sizeof(hwrusage) == 112, "hwrusage grew");

FIELD_AT(enrusage, energy1_input, 0);
FIELD_AT(enrusage, energy2_input, 1);
FIELD_AT(enrusage, power1_average, 2);
FIELD_AT(enrusage, power1_average_interval, 3);
FIELD_AT(enrusage, power2_average, 4);
FIELD_AT(enrusage, power2_average_interval, 5);
FIELD_AT(enrusage, power3_average, 6);
FIELD_AT(enrusage, power4_average, 7);
FIELD_AT(enrusage, power5_average, 8);
FIELD_AT(enrusage, power6_average, 9);
FIELD_AT(enrusage, power7_average, 10);
FIELD_AT(enrusage, power_cap, 11);
FIELD_AT(enrusage, temp1_input, 12);
FIELD_AT(enrusage, temp2_input, 13);
_Static_assert(sizeof(enrusage) == 112, "enrusage grew");

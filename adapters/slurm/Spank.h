// Spank.h - Slurm's plugin header for C++: its declarations of callbacks have C linkage here.
#pragma once

extern "C" {
#include <slurm/spank.h>
}

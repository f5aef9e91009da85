// Whole small files in one read or write, as sysfs attributes want it. Any thread.
#pragma once

/// Reads at most `buf_len` - 1 bytes of `file` into `buf` with one read(2) and terminates them.
/// Returns the bytes read; what read(2) returned when that is 0 or -1 (`buf` is then unchanged);
/// 0 when the file cannot be opened. Descriptor 0 counts as not opened: a daemon that runs
/// without standard input must not take a sysfs file for it.
int bin_read_file(const char* file, char* buf, int buf_len);

/// Writes `buf_len` bytes to the existing `file` with one write(2), whose result is returned;
/// 0 when the file cannot be opened (descriptor 0 as above).
int bin_write_file(const char* file, const char* buf, int buf_len);

// Loads what the scheduler functions share: the driver manager, a cluster's model, the site's
// thresholds. No other call may run meanwhile.
#pragma once

namespace eas {

/// eas_initialize with the data source `dsn`; null: the one that the locator file names.
int initialize_from(const char* dsn, const char* cluster_name, int default_frequency,
                    const char* threshold_file);

}  // namespace eas

// What the ODBC drivers leak by themselves is not the library's: under a leak checker it is left
// out by module. For that a driver must still be mapped at the end, when the checker looks.
#pragma once

namespace eas::test {

/// Under a leak checker, keeps every ODBC module that is loaded now mapped until the process ends.
void keep_drivers_mapped();

}  // namespace eas::test

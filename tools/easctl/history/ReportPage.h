// A report as one HTML page that needs no other file, for screen, dark screen and paper.
#pragma once

#include <string>

#include "tools/easctl/history/Report.h"
#include "tools/easctl/history/ReportPictures.h"

namespace easctl {

std::string report_page(const Report& report, const ReportPictures& pictures,
                        const std::string& title);

}  // namespace easctl

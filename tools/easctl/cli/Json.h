// JSON documents: included only where one is written, since the library's header costs seconds.
#pragma once

#include <nlohmann/json.hpp>

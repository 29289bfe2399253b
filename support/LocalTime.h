// Local time of the machine's time zone, for dates shown to users.
#pragma once

#include <cstdint>
#include <ctime>

namespace velmar {

// The local calendar time of a moment given in seconds since 1970 (UTC); false when it cannot be converted.
bool ToLocalTime(std::int64_t unixSeconds, std::tm& local);

}  // namespace velmar

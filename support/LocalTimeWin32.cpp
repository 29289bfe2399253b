#include "support/LocalTime.h"

namespace velmar {

bool ToLocalTime(std::int64_t unixSeconds, std::tm& local) {
    const std::time_t moment = static_cast<std::time_t>(unixSeconds);
    return localtime_s(&local, &moment) == 0;
}

}  // namespace velmar

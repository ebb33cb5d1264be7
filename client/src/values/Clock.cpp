#include <kxl/KXLClock.h>

#include <atomic>

namespace {

std::atomic<std::time_t (*)()> clockInUse{nullptr};

}  // namespace

std::time_t kxlTime() {
    const auto clock = clockInUse.load();
    return clock == nullptr ? std::time(nullptr) : clock();
}

void setKXLClock(std::time_t (*clock)()) {
    clockInUse = clock;
}

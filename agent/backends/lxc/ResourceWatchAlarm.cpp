#include "agent/backends/lxc/ResourceWatchAlarm.h"

namespace kx::agent::lxc {

AlarmTurn HitAlarm::look(bool hit, bool atEase, TimePoint now) {
    if (hit) {
        lastHit_ = now;
        raised_ = true;
        return AlarmTurn::Raise;
    }
    if (!raised_ || !atEase || now - lastHit_ < quiet_) {
        return AlarmTurn::None;
    }
    raised_ = false;
    return AlarmTurn::Clear;
}

AlarmTurn LevelAlarm::look(bool hit, double level, TimePoint now) {
    if (raised_) {
        return lookWhileRaised(hit, level, now);
    }
    if (level < rules_.high) {
        hitAt_.reset();
        return AlarmTurn::None;
    }
    if (hit && !hitAt_) {
        hitAt_ = now;
    }
    if (!hitAt_ || now - *hitAt_ < rules_.confirm) {
        return AlarmTurn::None;
    }
    hitAt_.reset();
    lowSince_.reset();
    raised_ = true;
    return AlarmTurn::Raise;
}

AlarmTurn LevelAlarm::lookWhileRaised(bool hit, double level, TimePoint now) {
    if (level >= rules_.low) {
        lowSince_.reset();
        return hit && level >= rules_.high ? AlarmTurn::Raise : AlarmTurn::None;
    }
    if (!lowSince_) {
        lowSince_ = now;
    }
    if (now - *lowSince_ < rules_.quiet) {
        return AlarmTurn::None;
    }
    raised_ = false;
    return AlarmTurn::Clear;
}

}  // namespace kx::agent::lxc

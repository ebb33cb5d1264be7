// How a failed test shows a signal.
#pragma once

#include <gtest/gtest.h>

#include <ostream>

#include "agent/alerts/Alert.h"

namespace kx::agent {

inline void PrintTo(const AlertSignal& signal, std::ostream* out) {
    *out << signal.source << " " << signal.code << " " << testing::PrintToString(signal.text) << " " << signal.value
         << " about " << signal.about.toString();
}

}  // namespace kx::agent

// Counts what C++ code allocates, the client library's included.
#pragma once

#include <cstddef>

/// @return how often operator new has been called in this process
std::size_t allocationCount();

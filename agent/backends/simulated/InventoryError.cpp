#include "agent/backends/simulated/InventoryError.h"

#include <fmt/format.h>

namespace kx::agent {

std::string describe(const std::string& path, const InventoryError& error) {
    if (error.line == 0) {
        return fmt::format("{}: {}", path, error.message);
    }
    return fmt::format("{}:{}:{}: {}", path, error.line, error.column, error.message);
}

}  // namespace kx::agent

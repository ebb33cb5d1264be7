// Any bytes as an inventory file: the parser answers with what the file says or with one error, and never throws.
// What it takes is also turned into a host, for that step trusts what the parser promises.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "agent/backends/simulated/SimulatedHost.h"

namespace {

using kx::agent::InventoryError;
using kx::agent::simulated::InventoryFile;
using kx::agent::simulated::SimulatedHost;

/// Enough to pass through the code that makes containers up, and no more: a fuzzer soon finds a million of them.
constexpr std::size_t kMaxGeneratedHere = 100;

void require(bool holds) {
    if (!holds)
        std::abort();
}

void checkError(const InventoryError& error) {
    require(!error.message.empty());
    require(error.message.find('\n') == std::string::npos);
    require((error.line == 0) == (error.column == 0));
}

void checkFile(InventoryFile file) {
    const std::size_t described = file.environments.size();
    if (file.generate > kMaxGeneratedHere)
        file.generate = kMaxGeneratedHere;
    const std::size_t generated = file.generate;
    const auto made = kx::agent::simulated::makeHost(std::move(file), "0123456789abcdef0123456789abcdef");
    if (const auto* error = std::get_if<InventoryError>(&made))
        checkError(*error);
    else
        require(std::get<SimulatedHost>(made).image.environments.size() == described + generated);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto parsed = kx::agent::simulated::parseInventory({reinterpret_cast<const char*>(data), size});
    if (const auto* error = std::get_if<InventoryError>(&parsed))
        checkError(*error);
    else
        checkFile(std::move(std::get<InventoryFile>(parsed)));
    return 0;
}

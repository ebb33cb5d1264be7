// What an operator notes of a container in `kx.toml`, beside the container's config:
//
//   description = "front end"
//   base_sample = "0f8e5c1a-7a44-4c3b-9d1e-0000000000aa"
//   templates = [ { name = "nginx", version = "1.24" } ]
//
// Every key is optional. Plain values and one function, any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// Longest `kx.toml` read.
inline constexpr std::size_t kMaxNotesBytes = std::size_t{256} * 1024;

/// The content of a `kx.toml`. Default-made it is that of a missing file.
struct ContainerNotes {
    std::optional<std::string> description;
    std::optional<Eid> baseSample;
    std::optional<std::vector<Template>> templates;  ///< absent: the file does not have the list
    bool operator==(const ContainerNotes&) const = default;
};

/// Why a `kx.toml` was not taken.
struct NotesError {
    unsigned line = 0;    ///< from 1
    unsigned column = 0;  ///< from 1
    std::string message;
};

/// @brief Reads the text of a `kx.toml`. Unknown keys and wrong types are errors: a mistyped key would
/// otherwise look like a note that is ignored.
/// @return the notes, or the first error; nothing is thrown for any text
std::variant<ContainerNotes, NotesError> parseContainerNotes(std::string_view text);

}  // namespace kx::agent::lxc

// How the parts of this backend report to the log: through a function handed to them, so that a test can count
// the lines. The sink must be callable from the thread that owns the part.
#pragma once

#include <functional>
#include <string>

namespace kx::agent::lxc {

/// How loud a line is.
enum class Severity { Info, Warning, Error };

/// Takes one line without its end.
using LogSink = std::function<void(Severity, const std::string&)>;

}  // namespace kx::agent::lxc

// What makes an environment a container.
//
// Thread promise: a constant.
#pragma once

/// Only environments whose type text equals this are containers for the tables. Compared with strcmp, so a type
/// text ends at its first NUL byte.
inline constexpr char containerType[] = "lumetra";

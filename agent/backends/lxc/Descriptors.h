// Descriptors that the kernel hands out for waiting: of processes (pidfd_open(2)), of events, of sets of both.
// Plain functions, any thread.
#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <span>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// @brief Takes over what a system call has returned.
/// @param number a descriptor, or negative with errno set
/// @param what was called, for the error
/// @throws std::runtime_error when there is no descriptor
OwnedDescriptor descriptorOrThrow(int number, const char* what);

/// @return a new event descriptor, not readable yet
/// @throws std::runtime_error when the system has none left
OwnedDescriptor makeEventDescriptor();

/// @brief Waits for a poll set (epoll_wait(2)); a Worker pauses meanwhile.
/// @param timeoutMs -1: without limit
/// @return how many events were filled in
int waitForEvents(int poll, std::span<epoll_event> events, int timeoutMs);

/// @brief Unlike its number, a process's descriptor never comes to mean another process.
/// @return a descriptor that is readable once the process has ended; none, with errno set, when there is no such
/// process
OwnedDescriptor openPidfd(pid_t pid);

/// @brief Whether a process has ended. When it has not, what was found under its number in /proc before is its own.
bool hasEnded(int pidfd);

}  // namespace kx::agent::lxc

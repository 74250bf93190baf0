// Threads and process identity.
#pragma once

#include <cstdint>

namespace sf {
namespace platform {

// Starts a detached thread running fn(arg). Returns false (last_error() set)
// when the system refuses.
bool start_thread(void (*fn)(void*), void* arg);

// Small integer id of the calling thread, as the system shows it (gettid).
std::uint32_t thread_id();
std::uint32_t process_id();

void sleep_ms(std::uint32_t ms);

// Cores this process may run on (its affinity, so a server pinned to one core
// counts one); at least 1.
unsigned cpu_count();

// Writes the calling thread's stack to standard error: symbolised in
// sanitizer builds, raw return addresses otherwise.
void print_stack_trace();

// Ends the process at once with status, running no destructors or handlers.
[[noreturn]] void exit_now(int status);

}  // namespace platform
}  // namespace sf

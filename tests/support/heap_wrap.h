// The heap calls of the code under test, noted in the journal. The test binaries
// that link this are linked with --wrap for malloc, calloc, realloc and free, which
// leaves the C++ runtime's own allocations out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace heap {

inline bool noting = false;       // heap calls go into the journal and into live
inline int refuse_after = -1;     // >= 0: so many more allocations succeed
inline int refuse_only = -1;      // >= 0: after so many allocations a single one is refused
inline int64_t limit = INT64_MAX; // bytes that may be handed out at a time
inline int64_t used = 0;          // bytes handed out and not yet freed
inline int refusals = 0;

// Blocks handed out while noting and not yet freed, with the names that tests gave
// them. A freed block is noted as "free NAME", null as "free null".
inline std::map<void *, std::string> live;

// Called with every block just before it is freed, while noting.
inline void (*last_look)(void *block) = nullptr;

// Notes heap calls for the length of a scope.
struct Noting {
    Noting() { noting = true; }
    ~Noting() { noting = false; }
};

} // namespace heap

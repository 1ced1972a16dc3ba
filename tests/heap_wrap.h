// The heap calls of the code under test, noted in the journal. The test binaries
// that link this are linked with --wrap for malloc, calloc, realloc and free, which
// leaves the C++ runtime's own allocations out.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace heap {

inline bool noting = false;   // heap calls go into the journal and into live
inline int refuse_after = -1; // >= 0: so many more calls of calloc and realloc succeed

// Blocks handed out while noting and not yet freed, with the names that tests gave
// them. A freed block is noted as "free NAME"; freeing null is not noted.
inline std::map<void *, std::string> live;

// Notes heap calls for the length of a scope.
struct Noting {
    Noting() { noting = true; }
    ~Noting() { noting = false; }
};

} // namespace heap

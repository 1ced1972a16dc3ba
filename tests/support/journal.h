// What happened in order: engine calls (scripted_engines) and heap calls
// (heap_wrap), one line of text each, so that a test can compare whole sequences.
#pragma once

#include <string>
#include <vector>

inline std::vector<std::string> journal;

// The lines that start with prefix.
inline std::vector<std::string> journal_of(const std::string &prefix)
{
    std::vector<std::string> lines;
    for (const std::string &line : journal)
        if (line.starts_with(prefix)) lines.push_back(line);
    return lines;
}

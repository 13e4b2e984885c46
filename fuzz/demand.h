// How a target says that something does not hold: it ends the process, which fuzzers and tests see.

#ifndef TAVRO_FUZZ_DEMAND_H
#define TAVRO_FUZZ_DEMAND_H

#include <cstdlib>
#include <iostream>
#include <string>

namespace tavro_fuzz {

inline void demand(bool bHeld, const std::string& what) {
    if (!bHeld) {
        std::cerr << "does not hold: " << what << std::endl;
        std::abort();
    }
}

template <typename A, typename B>
void demandEqual(const A& actual, const B& expected, const std::string& what) {
    if (!(actual == expected)) {
        std::cerr << "differs: " << what << "\n  is:        " << actual
                  << "\n  should be: " << expected << std::endl;
        std::abort();
    }
}

} // namespace tavro_fuzz

#endif

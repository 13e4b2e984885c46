// How many of many moments are tried.

#ifndef TAVRO_TESTS_STRIDE_H
#define TAVRO_TESTS_STRIDE_H

#include <cstdlib>

namespace tavro_test {

/// Where something is tried at each of an operation's calls: how far it is from one to the next.
/// All are tried but under sanitizers, where each takes long, and which memory is used hardly
/// depends on it. TAVRO_CALL_STRIDE in the environment says otherwise.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline int callStride(int usual = 5) {
#else
inline int callStride(int usual = 1) {
#endif
    const char* text = std::getenv("TAVRO_CALL_STRIDE");
    const int given = text == nullptr ? 0 : static_cast<int>(std::strtol(text, nullptr, 10));
    return given > 0 ? given : usual;
}

} // namespace tavro_test

#endif

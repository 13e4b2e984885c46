// Turns the bytes of a fuzzer into numbers and texts.

#ifndef TAVRO_FUZZ_BYTE_SOURCE_H
#define TAVRO_FUZZ_BYTE_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tavro_fuzz {

class ByteSource {
public:
    ByteSource(const std::uint8_t* bytes, std::size_t size)
        : m_bytes(reinterpret_cast<const char*>(bytes), size) {}

    bool isEmpty() const {
        return m_at == m_bytes.size();
    }

    /// 0 to `below` - 1; 0 when nothing is left.
    int number(int below) {
        return isEmpty() ? 0 : static_cast<unsigned char>(m_bytes[m_at++]) % below;
    }

    bool flag() {
        return number(2) == 1;
    }

    /// Everything up to the next line feed.
    std::string line() {
        const std::size_t end = m_bytes.find('\n', m_at);
        std::string text = m_bytes.substr(m_at, end - m_at);
        m_at = end == std::string::npos ? m_bytes.size() : end + 1;
        return text;
    }

    std::string rest() {
        std::string text = m_bytes.substr(m_at);
        m_at = m_bytes.size();
        return text;
    }

private:
    std::string m_bytes;
    std::size_t m_at = 0;
};

} // namespace tavro_fuzz

#endif

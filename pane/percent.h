/// Percent encoding: names of any bytes as plain ASCII and back, as URIs and trash records have it.

#ifndef TAVRO_PANE_PERCENT_H
#define TAVRO_PANE_PERCENT_H

#include <string>

/// @return `Bytes` with every byte but A-Z a-z 0-9 - . / _ ~ as % and two upper-case hexadecimal
///         digits.
std::string TavroPercentEncode(const std::string& Bytes);

/// @return the bytes that `Text` stands for. Digits may be of either case. A % that no two
///         hexadecimal digits follow stands for itself.
std::string TavroPercentDecode(const std::string& Text);

#endif

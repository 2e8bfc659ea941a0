// JSON text of the companion programs' one-line results: strings with
// quotes, backslashes and control characters escaped, numbers with nine
// significant digits, and null for a number that is not finite.
#pragma once

#include <cmath>
#include <cstdio>
#include <string>

namespace tessaline::cli {

inline std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (const unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            out += escape;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

inline std::string jsonNumber(double x) {
    if (!std::isfinite(x)) return "null";
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", x);
    return text;
}

}  // namespace tessaline::cli

// Death-test patterns: a text as a literal extended regular expression, and the whole fatal
// output of crash_in (its line with the function and module, then exactly the message).
#pragma once

#include <cstring>
#include <string>

inline std::string test_literal(const std::string& text)
{
    std::string out;
    for (char c : text) {
        if (strchr("\\^$.|?*+()[]{}", c))
            out += '\\';
        out += c;
    }
    return out;
}

// `tail` is a pattern matched after the message (text a test prints at exit, say).
inline std::string test_fatal(const char* function, const char* module, const std::string& message,
                              const char* tail = "")
{
    return std::string("^crash in ") + function + " at " + module + ":[0-9]+\n" + test_literal(message) + tail + "$";
}

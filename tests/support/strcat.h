// strcat: joins the pieces of a test's strings by appending. g++ 12 at -O3
// reports a false overlap (-Wrestrict) inside libstdc++ for a literal
// prepended to a std::string with operator+; appending never does.
#pragma once

#include <string>
#include <string_view>

template <typename... Parts>
std::string str_cat(const Parts &...parts) {
    std::string s;
    ((s += std::string_view(parts)), ...);
    return s;
}

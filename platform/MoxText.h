// Mox text helpers shared by dumps: printf-style formatting, indentation, True/False.
#pragma once

#include <cstdarg>
#include <string>

namespace Mox {

// ---------------------------------------------------------------------------------------------
// Text helpers

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char* fmt, va_list args);
// Appends printf-style text; dumps pass the indentation as the "%*c" prefix: (depth, ' ').
void appendf(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
inline const char* trueFalse(bool b) { return b ? "True" : "False"; }

} // namespace Mox

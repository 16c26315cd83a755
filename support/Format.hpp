// The printf-style formatter behind every message of the program.
//
// Conversions: "%@" (a value's description), "%s", "%d"/"%i"/"%u", "%x"/"%X"/"%o",
// "%c", "%f"/"%e"/"%g", and "%%", with the usual flags, widths and precisions
// ("%2d", "%-10s", "%.3f"). Length modifiers ("l", "ll", "z", "h", ...) are accepted
// and ignored: arguments carry their own types. A missing argument prints as "(null)"
// or 0; an argument of another kind is converted sensibly.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "support/Value.hpp"

namespace whittle {

class FormatArg {
public:
    FormatArg(const Value& value) : arg_(value) {}
    FormatArg(const std::string& text) : arg_(std::string_view(text)) {}
    FormatArg(std::string_view text) : arg_(text) {}
    FormatArg(const char* text) : arg_(text ? std::string_view(text) : std::string_view("(null)")) {}
    FormatArg(double number) : arg_(number) {}
    FormatArg(float number) : arg_(static_cast<double>(number)) {}
    template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
    FormatArg(Integer number) : arg_(static_cast<long long>(number)) {}

    std::string asText() const;
    long long asInteger() const;
    double asDouble() const;

private:
    std::variant<Value, std::string_view, long long, double> arg_;
};

std::string formatWithArgs(std::string_view format, std::initializer_list<FormatArg> args);

template <typename... Args>
std::string format(std::string_view fmt, const Args&... args) {
    return formatWithArgs(fmt, {FormatArg(args)...});
}

}  // namespace whittle

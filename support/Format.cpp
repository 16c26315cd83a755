#include "support/Format.hpp"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace whittle {

std::string FormatArg::asText() const {
    if (const auto* text = std::get_if<std::string_view>(&arg_)) return std::string(*text);
    if (const auto* value = std::get_if<Value>(&arg_)) return value->description();
    if (const auto* number = std::get_if<long long>(&arg_)) return std::to_string(*number);
    return Value::real(std::get<double>(arg_)).description();
}

long long FormatArg::asInteger() const {
    if (const auto* number = std::get_if<long long>(&arg_)) return *number;
    if (const auto* real = std::get_if<double>(&arg_)) return static_cast<long long>(*real);
    if (const auto* value = std::get_if<Value>(&arg_)) {
        if (const auto* integer = value->asInteger()) return *integer;
        return static_cast<long long>(value->numberValue());
    }
    return std::strtoll(std::string(std::get<std::string_view>(arg_)).c_str(), nullptr, 10);
}

double FormatArg::asDouble() const {
    if (const auto* real = std::get_if<double>(&arg_)) return *real;
    if (const auto* number = std::get_if<long long>(&arg_)) return static_cast<double>(*number);
    if (const auto* value = std::get_if<Value>(&arg_)) return value->numberValue();
    return std::strtod(std::string(std::get<std::string_view>(arg_)).c_str(), nullptr);
}

namespace {

struct Conversion {
    std::string flags;
    int width = -1;
    int precision = -1;
    char type = 0;
};

bool isFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '0' || c == '#'; }
bool isLengthModifier(char c) { return c == 'h' || c == 'l' || c == 'q' || c == 'L' || c == 'z' || c == 'j' || c == 't'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

int readNumber(std::string_view format, std::size_t& pos) {
    int number = 0;
    while (pos < format.size() && isDigit(format[pos])) {
        if (number < 100000) number = number * 10 + (format[pos] - '0');
        ++pos;
    }
    return number;
}

// Parses the conversion that starts just after a '%'; pos ends after its type letter.
Conversion readConversion(std::string_view format, std::size_t& pos) {
    Conversion conversion;
    while (pos < format.size() && isFlag(format[pos])) conversion.flags += format[pos++];
    if (pos < format.size() && isDigit(format[pos])) conversion.width = readNumber(format, pos);
    if (pos < format.size() && format[pos] == '.') {
        ++pos;
        conversion.precision = readNumber(format, pos);
    }
    while (pos < format.size() && isLengthModifier(format[pos])) ++pos;
    if (pos < format.size()) conversion.type = format[pos++];
    return conversion;
}

std::string cSpec(const Conversion& conversion, const char* length, char type) {
    std::string spec = "%" + conversion.flags;
    if (conversion.width >= 0) spec += std::to_string(conversion.width);
    if (conversion.precision >= 0) spec += "." + std::to_string(conversion.precision);
    spec += length;
    spec += type;
    return spec;
}

template <typename Number>
std::string printNumber(const std::string& spec, Number number) {
    int needed = std::snprintf(nullptr, 0, spec.c_str(), number);
    if (needed < 0) return {};
    std::vector<char> buffer(static_cast<std::size_t>(needed) + 1);
    std::snprintf(buffer.data(), buffer.size(), spec.c_str(), number);
    return std::string(buffer.data(), static_cast<std::size_t>(needed));
}

std::string padded(std::string text, const Conversion& conversion) {
    if (conversion.precision >= 0 && text.size() > static_cast<std::size_t>(conversion.precision)) {
        text.resize(static_cast<std::size_t>(conversion.precision));
    }
    if (conversion.width < 0 || text.size() >= static_cast<std::size_t>(conversion.width)) return text;
    std::string padding(static_cast<std::size_t>(conversion.width) - text.size(), ' ');
    bool leftAligned = conversion.flags.find('-') != std::string::npos;
    return leftAligned ? text + padding : padding + text;
}

std::string convert(const Conversion& conversion, const FormatArg* arg) {
    static const FormatArg missingText("(null)");
    static const FormatArg missingNumber(0);
    switch (conversion.type) {
        case '@':
        case 's': return padded((arg ? *arg : missingText).asText(), conversion);
        case 'd':
        case 'i': return printNumber(cSpec(conversion, "ll", 'd'), (arg ? *arg : missingNumber).asInteger());
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            return printNumber(cSpec(conversion, "ll", conversion.type),
                               static_cast<unsigned long long>((arg ? *arg : missingNumber).asInteger()));
        case 'c': return printNumber(cSpec(conversion, "", 'c'), static_cast<int>((arg ? *arg : missingNumber).asInteger()));
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G': return printNumber(cSpec(conversion, "", conversion.type), (arg ? *arg : missingNumber).asDouble());
        default: return {};
    }
}

}  // namespace

std::string formatWithArgs(std::string_view format, std::initializer_list<FormatArg> args) {
    std::string out;
    out.reserve(format.size() + 32);
    const FormatArg* next = args.begin();
    std::size_t pos = 0;
    while (pos < format.size()) {
        char c = format[pos++];
        if (c != '%') {
            out += c;
            continue;
        }
        if (pos < format.size() && format[pos] == '%') {
            out += '%';
            ++pos;
            continue;
        }
        Conversion conversion = readConversion(format, pos);
        if (conversion.type == 0) break;
        const FormatArg* arg = next != args.end() ? next++ : nullptr;
        out += convert(conversion, arg);
    }
    return out;
}

}  // namespace whittle
